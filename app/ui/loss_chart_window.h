/*
** loss_chart_window.h -- "Training Loss — <profile>": the loss log of a profile as a line chart
** of loss over step, or, when the log is missing, unreadable or empty, the two lines
** "No loss data available." and "Train this profile to see the loss curve.".
*/
#ifndef TRN_UI_LOSS_CHART_WINDOW_H
#define TRN_UI_LOSS_CHART_WINDOW_H

#include "training_profile.h"

#include <QWidget>

class QChart;
class QChartView;
class QLabel;
class QLineSeries;
class QStackedWidget;

class LossChartWindow : public QWidget
{
    Q_OBJECT

public:
    // Reads the profile's loss log now; shows it when shown.
    explicit LossChartWindow(const TrainingProfile &profile, QWidget *parent = nullptr);

    static QString titleFor(const QString &profileName);
    static QString noDataText();

    bool hasData() const;
    QLineSeries *series() const { return m_series; }
    QLabel *messageLabel() const { return m_message; }

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyTheme();

    QStackedWidget *m_pages;
    QLabel *m_message;
    QChartView *m_view;
    QChart *m_chart;
    QLineSeries *m_series;
};

#endif

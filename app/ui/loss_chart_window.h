/*
** loss_chart_window.h -- "Training Loss — <profile>": the loss log of a profile as a line chart
** of loss over step, or, when the log is missing, unreadable or empty, the two lines
** "No loss data available." and "Train this profile to see the loss curve.". While open it
** follows the log, so the chart grows as a running training writes it.
*/
#ifndef TRN_UI_LOSS_CHART_WINDOW_H
#define TRN_UI_LOSS_CHART_WINDOW_H

#include "training_profile.h"

#include <QTimer>
#include <QWidget>

class QChart;
class QChartView;
class QLabel;
class Settings;
class QLineSeries;
class QStackedWidget;
class QValueAxis;

class LossChartWindow : public QWidget
{
    Q_OBJECT

public:
    // Reads the profile's loss log now; shows it when shown. settings keep the window's frame;
    // they outlive the window.
    explicit LossChartWindow(const TrainingProfile &profile, Settings *settings,
                             QWidget *parent = nullptr);

    static QString titleFor(const QString &profileName);
    static QString noDataText();

    bool hasData() const;
    QLineSeries *series() const { return m_series; }
    QLabel *messageLabel() const { return m_message; }
    // Reads the log again when it changed since the last reading.
    void reload();

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyTheme();

    QStackedWidget *m_pages;
    QLabel *m_message;
    QChartView *m_view;
    QChart *m_chart;
    QLineSeries *m_series;
    QValueAxis *m_xAxis;
    QValueAxis *m_yAxis;
    QString m_lossPath;
    QString m_stamp; // size and time of the log at the last reading
    bool m_loaded = false;
    QTimer m_follow;
};

#endif

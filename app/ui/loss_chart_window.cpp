/*
** loss_chart_window.cpp -- the training loss chart.
*/
#include "loss_chart_window.h"

#include "training_manager.h"
#include "window_frames.h"

#include <QChart>
#include <QChartView>
#include <QLabel>
#include <QLineSeries>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <QValueAxis>

#include <cmath>

LossChartWindow::LossChartWindow(const TrainingProfile &profile, QWidget *parent)
    : QWidget(parent, Qt::Window)
{
    setObjectName(QStringLiteral("lossChartWindow"));
    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(titleFor(profile.name));
    resize(640, 420);
    setMinimumSize(420, 280);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_pages = new QStackedWidget(this);
    layout->addWidget(m_pages);

    m_message = new QLabel(noDataText(), m_pages);
    m_message->setObjectName(QStringLiteral("lossMessage"));
    m_message->setAlignment(Qt::AlignCenter);
    m_message->setForegroundRole(QPalette::PlaceholderText);
    m_pages->addWidget(m_message);

    m_series = new QLineSeries();
    m_series->setName(tr("Loss"));
    const QList<LossDataPoint> points = TrainingManager::parseLossFile(profile.lossPath());
    float low = 0.0f;
    float high = 1.0f;
    for (const LossDataPoint &point : points) {
        m_series->append(point.step, point.loss);
        low = m_series->count() == 1 ? point.loss : qMin(low, point.loss);
        high = m_series->count() == 1 ? point.loss : qMax(high, point.loss);
    }
    m_chart = new QChart();
    m_chart->addSeries(m_series);
    m_chart->legend()->hide();
    m_chart->setMargins(QMargins(8, 8, 16, 8));
    auto *xAxis = new QValueAxis(m_chart);
    xAxis->setTitleText(tr("Step"));
    xAxis->setLabelFormat(QStringLiteral("%d"));
    auto *yAxis = new QValueAxis(m_chart);
    yAxis->setTitleText(tr("Loss"));
    yAxis->setLabelFormat(QStringLiteral("%.2f"));
    if (!points.isEmpty()) {
        xAxis->setRange(points.first().step, qMax(points.last().step, points.first().step + 1));
        const float pad = qMax(0.05f, (high - low) * 0.08f);
        yAxis->setRange(std::floor((low - pad) * 10.0f) / 10.0f,
                        std::ceil((high + pad) * 10.0f) / 10.0f);
        xAxis->applyNiceNumbers();
        yAxis->applyNiceNumbers();
    }
    m_chart->addAxis(xAxis, Qt::AlignBottom);
    m_chart->addAxis(yAxis, Qt::AlignLeft);
    m_series->attachAxis(xAxis);
    m_series->attachAxis(yAxis);
    m_view = new QChartView(m_chart, m_pages);
    m_view->setObjectName(QStringLiteral("lossChart"));
    m_view->setRenderHint(QPainter::Antialiasing);
    m_pages->addWidget(m_view);
    m_pages->setCurrentIndex(points.isEmpty() ? 0 : 1);
    applyTheme();

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickLossChart"));
    frame->restore();
}

QString LossChartWindow::titleFor(const QString &profileName)
{
    return QStringLiteral("Training Loss \u2014 ") + profileName;
}

QString LossChartWindow::noDataText()
{
    return QStringLiteral("No loss data available.\nTrain this profile to see the loss curve.");
}

bool LossChartWindow::hasData() const
{
    return m_pages->currentIndex() == 1;
}

void LossChartWindow::applyTheme()
{
    const QPalette pal = palette();
    const bool dark = pal.color(QPalette::Window).lightness() < 128;
    m_chart->setTheme(dark ? QChart::ChartThemeDark : QChart::ChartThemeLight);
    m_chart->setBackgroundBrush(pal.color(QPalette::Window));
    m_chart->setBackgroundRoundness(0);
    m_chart->setTitle(QString());
    QPen pen(pal.color(QPalette::Highlight));
    pen.setWidthF(2.0);
    m_series->setPen(pen);
    const QColor text = pal.color(QPalette::WindowText);
    QColor grid = text;
    grid.setAlphaF(0.12f);
    for (QAbstractAxis *axis : m_chart->axes()) {
        axis->setLabelsColor(text);
        axis->setTitleBrush(text);
        axis->setGridLineColor(grid);
        axis->setLinePenColor(grid);
    }
}

void LossChartWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        applyTheme();
    }
    QWidget::changeEvent(event);
}

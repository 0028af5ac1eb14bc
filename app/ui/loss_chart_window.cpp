/*
** loss_chart_window.cpp -- the training loss chart.
*/
#include "loss_chart_window.h"

#include "training_manager.h"
#include "window_frames.h"

#include <QChart>
#include <QChartView>
#include <QDateTime>
#include <QFileInfo>
#include <QLabel>
#include <QLineSeries>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <QValueAxis>

#include <cmath>

LossChartWindow::LossChartWindow(const TrainingProfile &profile, Settings *settings,
                                 QWidget *parent)
    : QWidget(parent, Qt::Window)
{
    setObjectName(QStringLiteral("lossChartWindow"));
    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(titleFor(profile.name));
    m_lossPath = profile.lossPath();
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
    m_chart = new QChart();
    m_chart->addSeries(m_series);
    m_chart->legend()->hide();
    m_chart->setMargins(QMargins(8, 8, 16, 8));
    m_xAxis = new QValueAxis(m_chart);
    m_xAxis->setTitleText(tr("Step"));
    m_xAxis->setLabelFormat(QStringLiteral("%d"));
    m_yAxis = new QValueAxis(m_chart);
    m_yAxis->setTitleText(tr("Loss"));
    m_yAxis->setLabelFormat(QStringLiteral("%.2f"));
    m_chart->addAxis(m_xAxis, Qt::AlignBottom);
    m_chart->addAxis(m_yAxis, Qt::AlignLeft);
    m_series->attachAxis(m_xAxis);
    m_series->attachAxis(m_yAxis);
    m_view = new QChartView(m_chart, m_pages);
    m_view->setObjectName(QStringLiteral("lossChart"));
    m_view->setRenderHint(QPainter::Antialiasing);
    m_pages->addWidget(m_view);
    reload();
    applyTheme();

    // A running training appends to the log: follow it while the window is open. Reading is
    // skipped while the file's size and time are unchanged.
    m_follow.setInterval(1000);
    connect(&m_follow, &QTimer::timeout, this, &LossChartWindow::reload);
    m_follow.start();

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickLossChart"), settings);
    frame->restore();
}

void LossChartWindow::reload()
{
    const QFileInfo info(m_lossPath);
    const QString stamp = info.exists()
                              ? QString::number(info.size()) + QLatin1Char('@')
                                    + QString::number(info.lastModified().toMSecsSinceEpoch())
                              : QString();
    if (m_loaded && stamp == m_stamp) {
        return;
    }
    m_loaded = true;
    m_stamp = stamp;
    const QList<LossDataPoint> points = TrainingManager::parseLossFile(m_lossPath);
    QList<QPointF> shown;
    shown.reserve(points.size());
    float low = 0.0f;
    float high = 1.0f;
    for (const LossDataPoint &point : points) {
        shown.append(QPointF(point.step, point.loss));
        low = shown.size() == 1 ? point.loss : qMin(low, point.loss);
        high = shown.size() == 1 ? point.loss : qMax(high, point.loss);
    }
    m_series->replace(shown);
    if (!points.isEmpty()) {
        m_xAxis->setRange(points.first().step, qMax(points.last().step, points.first().step + 1));
        const float pad = qMax(0.05f, (high - low) * 0.08f);
        m_yAxis->setRange(std::floor((low - pad) * 10.0f) / 10.0f,
                          std::ceil((high + pad) * 10.0f) / 10.0f);
        m_xAxis->applyNiceNumbers();
        m_yAxis->applyNiceNumbers();
    }
    m_pages->setCurrentIndex(points.isEmpty() ? 0 : 1);
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

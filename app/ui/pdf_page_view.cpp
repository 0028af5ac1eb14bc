/*
** pdf_page_view.cpp -- rendering a PDF page with its marks.
*/
#include "pdf_page_view.h"

#include <QLabel>
#include <QPainter>
#include <QPdfDocument>
#include <QPdfSelection>
#include <QScrollBar>

namespace
{

constexpr int kMargin = 8;

} // namespace

PdfPageView::PdfPageView(QWidget *parent) : QScrollArea(parent)
{
    setObjectName(QStringLiteral("pdfPageView"));
    m_document = new QPdfDocument(this);
    m_image = new QLabel(this);
    m_image->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    m_image->setContentsMargins(kMargin, kMargin, kMargin, kMargin);
    setWidget(m_image);
    setWidgetResizable(true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    setBackgroundRole(QPalette::Mid);
    m_renderTimer.setSingleShot(true);
    m_renderTimer.setInterval(120);
    connect(&m_renderTimer, &QTimer::timeout, this, [this] {
        render();
    });
}

bool PdfPageView::open(const QString &path)
{
    if (path == m_path && m_document->status() == QPdfDocument::Status::Ready) {
        return true;
    }
    m_path.clear();
    m_matchOutlines.clear();
    m_bandOutlines.clear();
    m_image->clear();
    if (path.isEmpty() || m_document->load(path) != QPdfDocument::Error::None
        || m_document->pageCount() < 1) {
        m_document->close();
        return false;
    }
    m_path = path;
    return true;
}

int PdfPageView::pageCount() const
{
    return m_path.isEmpty() ? 0 : m_document->pageCount();
}

QString PdfPageView::pageText(int page) const
{
    if (page < 0 || page >= pageCount()) {
        return QString();
    }
    return m_document->getAllText(page).text();
}

void PdfPageView::showPage(int page, const QList<PdfTextRange> &matches, const PdfTextRange &band)
{
    m_matchOutlines.clear();
    m_bandOutlines.clear();
    if (pageCount() == 0) {
        m_image->clear();
        return;
    }
    m_page = qBound(0, page, pageCount() - 1);
    const auto outlines = [this](const PdfTextRange &range) {
        return range.length > 0
                   ? m_document->getSelectionAtIndex(m_page, range.start, range.length).bounds()
                   : QList<QPolygonF>();
    };
    m_bandOutlines = outlines(band);
    for (const PdfTextRange &range : matches) {
        m_matchOutlines += outlines(range);
    }
    render();
    scrollToMarks();
}

void PdfPageView::render()
{
    if (pageCount() == 0) {
        return;
    }
    const QSizeF points = m_document->pagePointSize(m_page);
    const int width = qMax(100, viewport()->width() - 2 * kMargin);
    if (points.width() <= 0) {
        return;
    }
    m_scale = width / points.width();
    const qreal ratio = devicePixelRatioF();
    const QSize pixels = (points * m_scale * ratio).toSize();
    const QImage page = m_document->render(m_page, pixels);
    if (page.isNull()) {
        m_image->clear();
        return;
    }
    // Pages are drawn on a transparent image; paper is white whatever the palette.
    QImage image(page.size(), QImage::Format_RGB32);
    image.fill(Qt::white);
    {
        QPainter painter(&image);
        painter.drawImage(0, 0, page);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.scale(m_scale * ratio, m_scale * ratio);
        painter.setPen(Qt::NoPen);
        painter.setCompositionMode(QPainter::CompositionMode_Multiply);
        painter.setBrush(QColor::fromRgbF(0.2f, 0.7f, 0.7f, 0.25f));
        for (const QPolygonF &outline : m_bandOutlines) {
            painter.drawPolygon(outline);
        }
        painter.setBrush(QColor::fromRgbF(1.0f, 0.85f, 0.2f, 0.8f));
        for (const QPolygonF &outline : m_matchOutlines) {
            painter.drawPolygon(outline);
        }
    }
    image.setDevicePixelRatio(ratio);
    m_image->setPixmap(QPixmap::fromImage(image));
}

void PdfPageView::scrollToMarks()
{
    const QList<QPolygonF> &first = m_bandOutlines.isEmpty() ? m_matchOutlines : m_bandOutlines;
    if (first.isEmpty()) {
        verticalScrollBar()->setValue(0);
        return;
    }
    // The label lays the new pixmap out on the next turn; the range must be there first.
    m_image->adjustSize();
    widget()->resize(widget()->sizeHint());
    const qreal top = first.first().boundingRect().top() * m_scale + kMargin;
    verticalScrollBar()->setValue(qMax(0, int(top - viewport()->height() / 3.0)));
}

void PdfPageView::resizeEvent(QResizeEvent *event)
{
    QScrollArea::resizeEvent(event);
    if (pageCount() > 0) {
        m_renderTimer.start();
    }
}

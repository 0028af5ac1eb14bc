/*
** pdf_page_view.h -- one page of a PDF, fitted to the width, with passages marked.
**
** The page is rendered by Qt PDF at the width of the view (again when the view is resized) and
** scrolls vertically. Marks are ranges of the page's text (QPdfDocument::getAllText): query
** matches are drawn in the match colour, the hit's passage as a faint band; the view scrolls so
** that the first mark sits a third of the way down.
*/
#ifndef TRN_UI_PDF_PAGE_VIEW_H
#define TRN_UI_PDF_PAGE_VIEW_H

#include <QList>
#include <QPolygonF>
#include <QScrollArea>
#include <QString>
#include <QTimer>

class QLabel;
class QPdfDocument;

// A range of a page's text, [start, start + length) in the indices of getAllText.
struct PdfTextRange {
    int start = 0;
    int length = 0;
};

class PdfPageView : public QScrollArea
{
    Q_OBJECT

public:
    explicit PdfPageView(QWidget *parent = nullptr);

    // Loads the PDF at path (again only when another file is asked for); false when it cannot be
    // read, and the view is then empty.
    bool open(const QString &path);
    QString filePath() const { return m_path; }
    int pageCount() const;

    // The text of page (0-based) as the marks count it; empty when there is no such page.
    QString pageText(int page) const;

    // Shows page (clamped to the document) with matches and band marked, scrolled to the first
    // of them (the band first).
    void showPage(int page, const QList<PdfTextRange> &matches, const PdfTextRange &band);
    int page() const { return m_page; }

    // The outlines of the marks on the current page, in page points (for tests and scrolling).
    QList<QPolygonF> matchOutlines() const { return m_matchOutlines; }
    QList<QPolygonF> bandOutlines() const { return m_bandOutlines; }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void render();
    void scrollToMarks();

    QPdfDocument *m_document;
    QLabel *m_image;
    QString m_path;
    int m_page = 0;
    QList<QPolygonF> m_matchOutlines;
    QList<QPolygonF> m_bandOutlines;
    double m_scale = 1.0; // pixels per point of the rendered page
    QTimer m_renderTimer; // resizes come in bursts; render once they stop
};

#endif

/*
** preview_pane.h -- the preview of one search result, docked in the main window beside or under
** the results list.
**
** A header names the file, its path inside the directory and where the hit is (line, page or
** heading path), with buttons to open the result and to hide the pane. Under it, by the kind of
** file:
**
**   text, source   the file with a line-number gutter, the hit's line on a band, the query's
**                  matches marked (match_marks.h, line by line); UTF-8, else read as
**                  Windows-1252; files of more than kMaxLines lines show the kMaxLines around
**                  the hit, with their own numbers
**   HTML, Markdown rendered, scrolled to the rendered text of the hit's source line, that block on
**                  the band and the matches marked
**   DOCX, ODT,     formatted with their headings (formatted_document.h), scrolled to the hit's
**   EPUB           paragraph; the header gives its heading path
**   PDF            the hit's page fitted to the width (pdf_page_view.h), the matches on it marked
**                  and the hit's passage on the band; buttons turn the pages
**
** The hit is scrolled a third of the way down. A file that cannot be read shows a one-line
** reason instead of the previous file.
*/
#ifndef TRN_UI_PREVIEW_PANE_H
#define TRN_UI_PREVIEW_PANE_H

#include "search_results.h"

#include <QColor>
#include <QDateTime>
#include <QStringList>
#include <QTextBlock>
#include <QWidget>

class PdfPageView;
class QLabel;
class QStackedWidget;
class QTextBrowser;
class QTextEdit;
class QToolButton;

class PreviewPane : public QWidget
{
    Q_OBJECT

public:
    enum class Content { Message, Text, Document, Pdf };
    static constexpr int kMaxLines = 4000;

    explicit PreviewPane(QWidget *parent = nullptr);

    // Previews result with the matches of query in mode marked. The same result, query and mode
    // again leave the view as it is (scrolled by the user) unless the file changed since.
    void showResult(const SearchResult &result, const QString &query, SearchMode mode);
    // Shows message (the placeholder when empty) instead of a file.
    void showMessage(const QString &message = QString());
    // Paths in the header are shown relative to this directory.
    void setDirectory(const QString &directoryPath) { m_directory = directoryPath; }

    Content content() const;
    SearchResult result() const { return m_result; }
    QString title() const;
    QString location() const; // the header's second line
    QString message() const;
    // The 1-based line of the file (text) or the source line (HTML, Markdown) that the view is
    // scrolled to; 0 when none (documents, PDF, messages).
    int hitLine() const { return m_hitLine; }
    // The block of the view that holds the hit (text and documents).
    QTextBlock hitBlock() const { return m_hitBlock; }
    // The 0-based PDF page shown.
    int pdfPage() const;
    QStringList headings() const { return m_headings; }

    QTextEdit *textView() const { return m_text; }
    QTextBrowser *documentView() const { return m_document; }
    PdfPageView *pdfView() const { return m_pdf; }

    static QColor bandColor() { return QColor::fromRgbF(0.2f, 0.7f, 0.7f, 0.18f); }
    static QColor matchColor() { return QColor::fromRgbF(1.0f, 0.85f, 0.2f, 0.45f); }

signals:
    void openRequested(const SearchResult &result);
    void hideRequested();

protected:
    void changeEvent(QEvent *event) override;

private:
    bool showText(QString *problem);
    bool showMarkup(bool html, QString *problem);
    bool showFormatted(QString *problem);
    bool showPdf(int page, QString *problem);
    void turnPdfPage(int delta);
    void markDocument();
    void scrollToHit(QTextEdit *view);
    void setHeader(const QString &location);
    int sourceLineShown(const QStringList &lines, int lineNumber);
    QTextBlock nearBlockWithSnippet(const QTextBlock &guess) const;

    QLabel *m_title;
    QLabel *m_location;
    QToolButton *m_previousPage;
    QToolButton *m_nextPage;
    QToolButton *m_open;
    QStackedWidget *m_stack;
    QLabel *m_message;
    QTextEdit *m_text;
    QTextBrowser *m_document;
    PdfPageView *m_pdf;

    SearchResult m_result;
    QString m_query;
    SearchMode m_mode = SearchMode::Hybrid;
    QDateTime m_fileTime; // the file's modification time when it was shown
    QString m_directory;
    int m_hitLine = 0;
    QTextBlock m_hitBlock;
    QStringList m_headings;
};

#endif

/*
** preview_panels.h -- the floating panels that preview a search result.
**
** Each kind of result has one shared panel for the whole application, created on first use and
** kept until the application ends (closing a panel only hides it):
**
**   ContextPanel   plain text and source code: the whole file with a line-number gutter, the
**                  hit's chunk shaded, the query's matches marked, scrolled to the hit
**   PdfPanel       a PDF at the page holding the hit
**   HtmlPanel      an HTML file rendered
**   MarkdownPanel  a Markdown file rendered
**
** The panels are utility windows beside the main window; they never take the keyboard focus from
** it, and they remember their frames under "TarnwickContextPanel", "TarnwickPDFPanel",
** "TarnwickHTMLPanel" and "TarnwickMarkdownPanel".
**
** The context panel's text, for a file of n lines, the hit at line L, chunk size c:
**
**   gutter   "%<w>d  " for line i + 1, w = digits of n, in the gutter colour
**   text     the line, in the line colour; lines s..e also on the chunk colour
**   shading  s = max(0, min(n - 1, L - 1)); e = the first line from s at which the running sum of
**            (line length + 1) reaches c, or the last line
**   marks    the query's matches (match_marks.h) over the whole text, gutters included, on the
**            match colour
*/
#ifndef TRN_UI_PREVIEW_PANELS_H
#define TRN_UI_PREVIEW_PANELS_H

#include "tarnwick_engine.h"

#include <QColor>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

class QLabel;
class QPdfDocument;
class QPdfView;
class QTextBrowser;
class QTextEdit;
class WindowFrame;

// A floating utility window with a remembered frame.
class PreviewPanel : public QWidget
{
    Q_OBJECT

public:
    PreviewPanel(const QString &autosaveName, const QSize &size, const QSize &minimumSize,
                 bool onTop);

    // Shows the panel without taking the focus: at its remembered frame, or on first use beside
    // the application's main window (previewPlacement in window_frames.h), always wholly on the
    // main window's screen.
    void present();

private:
    void placeBeside(QWidget *anchor);

    WindowFrame *m_frame;
    bool m_placed = false;
};

class ContextPanel : public PreviewPanel
{
    Q_OBJECT

public:
    static constexpr int kWidth = 620;
    static constexpr int kHeight = 500;
    static constexpr int kMinimumWidth = 400;
    static constexpr int kMinimumHeight = 250;

    // The shared panel, created on first use ("previewOnTop" is read then).
    static ContextPanel *shared();
    // The shared panel when it exists, else NULL.
    static ContextPanel *existing();

    // Shows filePath scrolled to lineNumber. Nothing happens (and false is returned) for an
    // empty path or a file that cannot be read or is not UTF-8.
    bool showFile(const QString &filePath, int lineNumber, const QString &searchQuery,
                  SearchMode searchMode);

    QTextEdit *textView() const { return m_text; }
    QString filePath() const { return m_filePath; }

    // The rule of the header comment: the first and last shaded line (0-based).
    static std::pair<int, int> shadedLines(const QStringList &lines, int lineNumber, int chunkSize);
    // "<file> — line <n> (<semantic|text|regex>)".
    static QString titleFor(const QString &filePath, int lineNumber, SearchMode mode);

    static QColor chunkColor() { return QColor::fromRgbF(0.2f, 0.7f, 0.7f, 0.1f); }
    static QColor matchColor() { return QColor::fromRgbF(1.0f, 0.85f, 0.2f, 0.4f); }

protected:
    void changeEvent(QEvent *event) override;

private:
    explicit ContextPanel(bool onTop);
    void build(const QString &text, int lineNumber, const QString &query, SearchMode mode);
    void scrollToLine(int line);

    QTextEdit *m_text;
    QString m_filePath;
    int m_lineNumber = 0;
    QString m_query;
    SearchMode m_mode = SearchMode::Semantic;
};

class PdfPanel : public PreviewPanel
{
    Q_OBJECT

public:
    static PdfPanel *shared();
    static PdfPanel *existing();
    // Shows page (1-based) of the PDF at path; false when it cannot be opened.
    bool showPage(const QString &path, int page);
    int currentPage() const; // 1-based
    QString filePath() const { return m_filePath; }

private:
    PdfPanel();
    QPdfDocument *m_document;
    QPdfView *m_view;
    QString m_filePath;
};

class DocumentPanel : public PreviewPanel
{
    Q_OBJECT

public:
    enum class Kind { Html, Markdown };
    // One shared panel per kind.
    static DocumentPanel *shared(Kind kind);
    static DocumentPanel *existing(Kind kind);
    // Renders the file and scrolls the text of source line lineNumber a third of the way down;
    // false when the file cannot be read.
    bool showDocument(const QString &path, int lineNumber = 1);
    QTextBrowser *browser() const { return m_browser; }
    QString filePath() const { return m_filePath; }
    // The source line whose rendered text the view was scrolled to; 0 when none was found and the
    // view was scrolled in proportion.
    int hitLine() const { return m_hitLine; }
    // The first words of a source line as the rendered document shows them (markup removed), or
    // "" when the line shows nothing distinctive.
    static QString renderedFragment(const QString &sourceLine, Kind kind);

private:
    explicit DocumentPanel(Kind kind);
    void scrollToSourceLine(int lineNumber);
    Kind m_kind;
    int m_hitLine = 0;
    QTextBrowser *m_browser;
    QString m_filePath;
};

// The hover's action: the panel for the result's category (PDF at pdfPageForLine, page 1 when
// that gives none).
void previewResult(const SearchResult &result, const QString &query, SearchMode mode);

#endif

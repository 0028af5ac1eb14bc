/*
** preview_panels.cpp -- the context panel and the PDF, HTML and Markdown panels.
*/
#include "preview_panels.h"

#include "match_marks.h"
#include "settings.h"
#include "window_frames.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QMainWindow>
#include <QPdfDocument>
#include <QPdfPageNavigator>
#include <QPdfView>
#include <QRegularExpression>
#include <QScreen>
#include <QScrollBar>
#include <QStringDecoder>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

namespace
{

QPointer<ContextPanel> g_contextPanel;
QPointer<PdfPanel> g_pdfPanel;
QPointer<DocumentPanel> g_htmlPanel;
QPointer<DocumentPanel> g_markdownPanel;

// The window the panels sit beside: the main window when there is one.
QWidget *anchorWindow()
{
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (qobject_cast<QMainWindow *>(w) && w->isVisible()) {
            return w;
        }
    }
    return QApplication::activeWindow();
}

// The panels belong to no window, so they are deleted with the application.
template <typename Panel>
Panel *keepUntilQuit(Panel *panel)
{
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, panel, &QObject::deleteLater);
    return panel;
}

std::optional<QString> readUtf8(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder(bytes);
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text;
}

QString modeWord(SearchMode mode)
{
    switch (mode) {
    case SearchMode::Hybrid:
        return QStringLiteral("hybrid");
    case SearchMode::Keyword:
        return QStringLiteral("keyword");
    case SearchMode::Text:
        return QStringLiteral("text");
    case SearchMode::Regex:
        return QStringLiteral("regex");
    case SearchMode::Semantic:
        break;
    }
    return QStringLiteral("semantic");
}

} // namespace

PreviewPanel::PreviewPanel(const QString &autosaveName, const QSize &size, const QSize &minimumSize,
                           bool onTop)
    : QWidget(nullptr, Qt::Tool | (onTop ? Qt::WindowStaysOnTopHint : Qt::WindowFlags()))
{
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_QuitOnClose, false);
    setObjectName(autosaveName);
    setMinimumSize(minimumSize);
    resize(size);
    m_frame = new WindowFrame(this, autosaveName);
}

void PreviewPanel::present()
{
    QWidget *anchor = anchorWindow();
    if (!m_placed) {
        m_placed = true;
        if (!m_frame->restore() && anchor) {
            placeBeside(anchor);
        }
    }
    fitOnScreen(this, anchor);
    show();
    raise();
}

void PreviewPanel::placeBeside(QWidget *anchor)
{
    const QMargins margins = frameMargins(this, anchor);
    const QMargins anchorMargins = frameMargins(anchor, nullptr);
    const QRect main = anchor->frameGeometry();
    // The panel's top is level with the search bar, the first row it must leave uncovered.
    QRect results = main;
    if (const QWidget *bar = anchor->findChild<QWidget *>(QStringLiteral("searchBar"))) {
        results = QRect(bar->mapToGlobal(QPoint(0, 0)), bar->size());
    }
    QRect mainFrame;
    const QRect panel =
        previewPlacement(main,
                         results,
                         availableArea(this, anchor),
                         size().grownBy(margins),
                         minimumSize().grownBy(margins),
                         anchor->minimumWidth() + anchorMargins.left() + anchorMargins.right(),
                         &mainFrame);
    if (mainFrame != main) {
        if (anchor->windowState() & (Qt::WindowMaximized | Qt::WindowFullScreen)) {
            anchor->showNormal();
        }
        anchor->resize(mainFrame.size().shrunkBy(anchorMargins));
        anchor->move(mainFrame.topLeft());
    }
    resize(panel.size().shrunkBy(margins));
    move(panel.topLeft());
}

// ---- context panel ----

ContextPanel *ContextPanel::shared()
{
    if (!g_contextPanel) {
        g_contextPanel = keepUntilQuit(new ContextPanel(Settings::standard()->previewOnTop()));
    }
    return g_contextPanel;
}

ContextPanel *ContextPanel::existing()
{
    return g_contextPanel;
}

ContextPanel::ContextPanel(bool onTop)
    : PreviewPanel(QStringLiteral("TarnwickContextPanel"), QSize(kWidth, kHeight),
                   QSize(kMinimumWidth, kMinimumHeight), onTop)
{
    m_text = new QTextEdit(this);
    m_text->setObjectName(QStringLiteral("contextText"));
    m_text->setReadOnly(true);
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_text->setLineWrapMode(QTextEdit::NoWrap);
    m_text->setFrameShape(QFrame::NoFrame);
    m_text->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    m_text->setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    m_text->document()->setDocumentMargin(8);
    m_text->viewport()->setBackgroundRole(QPalette::Window);
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSize(12);
    font.setWeight(QFont::Normal);
    m_text->document()->setDefaultFont(font);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_text);
}

QString ContextPanel::titleFor(const QString &filePath, int lineNumber, SearchMode mode)
{
    return QFileInfo(filePath).fileName() + QStringLiteral(" \u2014 line ")
           + QString::number(lineNumber) + QStringLiteral(" (") + modeWord(mode)
           + QStringLiteral(")");
}

std::pair<int, int> ContextPanel::shadedLines(const QStringList &lines, int lineNumber,
                                              int chunkSize)
{
    const int n = static_cast<int>(lines.size());
    const int s = qMax(0, qMin(n - 1, lineNumber - 1));
    const int c = chunkSize > 0 ? chunkSize : Settings::kDefaultChunkSize;
    int e = s;
    qsizetype total = 0;
    for (int i = s; i < n; ++i) {
        total += lines.at(i).size() + 1;
        e = i;
        if (total >= c) {
            break;
        }
    }
    return {s, e};
}

bool ContextPanel::showFile(const QString &filePath, int lineNumber, const QString &searchQuery,
                            SearchMode searchMode)
{
    if (filePath.isEmpty()) {
        return false;
    }
    const std::optional<QString> text = readUtf8(filePath);
    if (!text) {
        return false;
    }
    m_filePath = filePath;
    m_lineNumber = lineNumber;
    m_query = searchQuery;
    m_mode = searchMode;
    setWindowTitle(titleFor(filePath, lineNumber, searchMode));
    build(*text, lineNumber, searchQuery, searchMode);
    present();
    return true;
}

void ContextPanel::build(const QString &text, int lineNumber, const QString &query, SearchMode mode)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    const int n = static_cast<int>(lines.size());
    const auto [s, e] = shadedLines(lines, lineNumber, Settings::standard()->chunkSize());
    const int width = static_cast<int>(QString::number(n).size());

    const QColor ink = palette().color(QPalette::WindowText);
    QColor gutterColor = ink;
    gutterColor.setAlphaF(0.35f); // the tertiary label shade
    QColor lineColor = ink;
    lineColor.setAlphaF(0.75f); // the secondary label shade

    QTextCharFormat gutterFormat;
    gutterFormat.setForeground(gutterColor);
    QTextCharFormat lineFormat;
    lineFormat.setForeground(lineColor);
    QTextCharFormat chunkFormat = lineFormat;
    chunkFormat.setBackground(chunkColor());

    QTextDocument *doc = m_text->document();
    doc->clear();
    QTextCursor cursor(doc);
    cursor.beginEditBlock();
    for (int i = 0; i < n; ++i) {
        cursor.insertText(QString::asprintf("%*d  ", width, i + 1), gutterFormat);
        const QTextCharFormat &format = (i >= s && i <= e) ? chunkFormat : lineFormat;
        cursor.insertText(lines.at(i), format);
        if (i + 1 < n) {
            cursor.insertText(QStringLiteral("\n"), format);
        }
    }
    // Each "\n" became a block separator of one character, so positions in the document are
    // positions in the plain text.
    const QString built = doc->toPlainText();
    QTextCharFormat markFormat;
    markFormat.setBackground(matchColor());
    for (const MatchSpan &span : findQueryMatches(built, query, mode)) {
        QTextCursor mark(doc);
        mark.setPosition(static_cast<int>(span.start));
        mark.setPosition(static_cast<int>(span.start + span.length), QTextCursor::KeepAnchor);
        mark.mergeCharFormat(markFormat);
    }
    cursor.endEditBlock();
    m_text->moveCursor(QTextCursor::Start);

    QPointer<ContextPanel> self(this);
    QTimer::singleShot(0, this, [self, s = s] {
        if (self) {
            self->scrollToLine(s);
        }
    });
}

void ContextPanel::scrollToLine(int line)
{
    QTextDocument *doc = m_text->document();
    const QTextBlock block = doc->findBlockByNumber(line);
    if (!block.isValid()) {
        return;
    }
    const qreal y = doc->documentLayout()->blockBoundingRect(block).top();
    const int h = m_text->viewport()->height();
    m_text->verticalScrollBar()->setValue(qMax(0, static_cast<int>(y - h / 3.0)));
    m_text->horizontalScrollBar()->setValue(0);
}

void ContextPanel::changeEvent(QEvent *event)
{
    // The colours of the text follow the palette; rebuild them when it changes.
    if (event->type() == QEvent::PaletteChange && !m_filePath.isEmpty()) {
        if (const std::optional<QString> text = readUtf8(m_filePath)) {
            build(*text, m_lineNumber, m_query, m_mode);
        }
    }
    PreviewPanel::changeEvent(event);
}

// ---- PDF panel ----

PdfPanel *PdfPanel::shared()
{
    if (!g_pdfPanel) {
        g_pdfPanel = keepUntilQuit(new PdfPanel());
    }
    return g_pdfPanel;
}

PdfPanel *PdfPanel::existing()
{
    return g_pdfPanel;
}

PdfPanel::PdfPanel()
    : PreviewPanel(QStringLiteral("TarnwickPDFPanel"), QSize(620, 760), QSize(400, 300),
                   Settings::standard()->previewOnTop())
{
    m_document = new QPdfDocument(this);
    m_view = new QPdfView(this);
    m_view->setObjectName(QStringLiteral("pdfView"));
    m_view->setDocument(m_document);
    m_view->setPageMode(QPdfView::PageMode::MultiPage);
    m_view->setZoomMode(QPdfView::ZoomMode::FitToWidth);
    m_view->setFrameShape(QFrame::NoFrame);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_view);
}

bool PdfPanel::showPage(const QString &path, int page)
{
    if (path.isEmpty()) {
        return false;
    }
    if (path != m_filePath || m_document->status() != QPdfDocument::Status::Ready) {
        if (m_document->load(path) != QPdfDocument::Error::None) {
            m_filePath.clear();
            return false;
        }
        m_filePath = path;
    }
    const int count = m_document->pageCount();
    const int target = qBound(1, page, qMax(1, count));
    setWindowTitle(QFileInfo(path).fileName() + QStringLiteral(" \u2014 page ")
                   + QString::number(target));
    present();
    m_view->pageNavigator()->jump(target - 1, QPointF(), 0);
    return true;
}

int PdfPanel::currentPage() const
{
    return m_view->pageNavigator()->currentPage() + 1;
}

// ---- HTML and Markdown panels ----

DocumentPanel *DocumentPanel::shared(Kind kind)
{
    QPointer<DocumentPanel> &slot = kind == Kind::Html ? g_htmlPanel : g_markdownPanel;
    if (!slot) {
        slot = keepUntilQuit(new DocumentPanel(kind));
    }
    return slot;
}

DocumentPanel *DocumentPanel::existing(Kind kind)
{
    return kind == Kind::Html ? g_htmlPanel : g_markdownPanel;
}

DocumentPanel::DocumentPanel(Kind kind)
    : PreviewPanel(kind == Kind::Html ? QStringLiteral("TarnwickHTMLPanel")
                                      : QStringLiteral("TarnwickMarkdownPanel"),
                   QSize(620, 600), QSize(400, 250), Settings::standard()->previewOnTop()),
      m_kind(kind)
{
    m_browser = new QTextBrowser(this);
    m_browser->setObjectName(kind == Kind::Html ? QStringLiteral("htmlView")
                                                : QStringLiteral("markdownView"));
    m_browser->setOpenExternalLinks(true);
    m_browser->setFrameShape(QFrame::NoFrame);
    m_browser->document()->setDocumentMargin(16);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_browser);
}

QString DocumentPanel::renderedFragment(const QString &sourceLine, Kind kind)
{
    QString text = sourceLine;
    if (kind == Kind::Html) {
        static const QRegularExpression tag(QStringLiteral("<[^>]*>"));
        text.replace(tag, QStringLiteral(" "));
        const std::pair<const char *, const char *> entities[] = {{"&lt;", "<"},
                                                                  {"&gt;", ">"},
                                                                  {"&quot;", "\""},
                                                                  {"&#39;", "'"},
                                                                  {"&nbsp;", " "},
                                                                  {"&amp;", "&"}};
        for (const auto &[entity, character] : entities) {
            text.replace(QLatin1String(entity), QLatin1String(character));
        }
    } else {
        // Block marks at the start (headings, quotes, list bullets and numbers), links reduced
        // to their text, and the inline emphasis and code marks.
        static const QRegularExpression block(QStringLiteral("^\\s*([#>]+|[-*+]|\\d+[.)])\\s+"));
        static const QRegularExpression link(QStringLiteral("!?\\[([^\\]]*)\\]\\([^)]*\\)"));
        static const QRegularExpression marks(QStringLiteral("[*_`]+"));
        text.replace(block, QString());
        text.replace(link, QStringLiteral("\\1"));
        text.replace(marks, QString());
    }
    text = text.simplified();
    if (text.size() > 48) {
        const qsizetype space = text.lastIndexOf(QLatin1Char(' '), 48);
        text.truncate(space > 16 ? space : 48);
    }
    return text.size() >= 4 ? text : QString();
}

bool DocumentPanel::showDocument(const QString &path, int lineNumber)
{
    QFileInfo info(path);
    if (path.isEmpty() || !info.isFile() || !info.isReadable()) {
        return false;
    }
    m_filePath = path;
    m_browser->setSource(QUrl::fromLocalFile(info.absoluteFilePath()),
                         m_kind == Kind::Html ? QTextDocument::HtmlResource
                                              : QTextDocument::MarkdownResource);
    setWindowTitle(info.fileName() + QStringLiteral(" \u2014 line ") + QString::number(lineNumber));
    present();
    // After the layout of the new document, on the next turn of the event loop.
    QPointer<DocumentPanel> self(this);
    QTimer::singleShot(0, this, [self, lineNumber] {
        if (self) {
            self->scrollToSourceLine(lineNumber);
        }
    });
    return true;
}

void DocumentPanel::scrollToSourceLine(int lineNumber)
{
    const std::optional<QString> source = readUtf8(m_filePath);
    if (!source) {
        return;
    }
    const QStringList lines = source->split(QLatin1Char('\n'));
    QTextDocument *document = m_browser->document();
    QScrollBar *bar = m_browser->verticalScrollBar();
    const int first = qBound(0, lineNumber - 1, qMax(0, int(lines.size()) - 1));
    // The first line from the hit on whose text shows in the rendered document (markup-only
    // lines such as "<div>" or "---" show nothing).
    for (int i = first; i < lines.size() && i < first + 40; i++) {
        const QString fragment = renderedFragment(lines.at(i), m_kind);
        if (fragment.isEmpty()) {
            continue;
        }
        const QTextCursor found = document->find(fragment);
        if (found.isNull()) {
            continue;
        }
        const QRectF block = document->documentLayout()->blockBoundingRect(found.block());
        bar->setValue(qMax(0, int(block.top()) - m_browser->viewport()->height() / 3));
        m_hitLine = i + 1;
        return;
    }
    // Nothing recognisable: the same fraction of the way down as the line is in the file.
    m_hitLine = 0;
    bar->setValue(int(double(first) / qMax(1, int(lines.size())) * bar->maximum()));
}

void previewResult(const SearchResult &result, const QString &query, SearchMode mode)
{
    switch (TarnwickEngine::fileCategory(result)) {
    case FileCategory::Pdf: {
        const std::optional<int> page =
            TarnwickEngine::pdfPageForLine(result.filePath, result.lineNumber);
        PdfPanel::shared()->showPage(result.filePath, page.value_or(1));
        break;
    }
    case FileCategory::Html:
        DocumentPanel::shared(DocumentPanel::Kind::Html)
            ->showDocument(result.filePath, result.lineNumber);
        break;
    case FileCategory::Markdown:
        DocumentPanel::shared(DocumentPanel::Kind::Markdown)
            ->showDocument(result.filePath, result.lineNumber);
        break;
    case FileCategory::Plain:
        ContextPanel::shared()->showFile(result.filePath, result.lineNumber, query, mode);
        break;
    }
}

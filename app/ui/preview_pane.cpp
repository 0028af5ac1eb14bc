/*
** preview_pane.cpp -- the docked preview: text with a gutter, rendered HTML and Markdown,
** formatted office documents and e-books, and PDF pages.
*/
#include "preview_pane.h"

#include "file_info.h"
#include "formatted_document.h"
#include "icons.h"
#include "match_marks.h"
#include "pdf_page_view.h"
#include "preview_text.h"

#include <QAbstractTextDocumentLayout>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QRegularExpression>
#include <QScrollBar>
#include <QStackedWidget>
#include <QStringDecoder>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <optional>

namespace
{

// Files larger than this are not read for a preview.
constexpr qint64 kMaxPreviewBytes = 64ll * 1024 * 1024;
// Marks beyond this many are not drawn: a one-letter query would otherwise mark a whole book.
constexpr int kMaxMarks = 5000;
// How far from the line's block a document is searched for the snippet's words.
constexpr int kSnippetReach = 20;

std::optional<QByteArray> readBytes(const QString &path, QString *problem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *problem = QFileInfo::exists(path) ? PreviewPane::tr("The file cannot be read.")
                                           : PreviewPane::tr("The file is no longer there.");
        return std::nullopt;
    }
    if (file.size() > kMaxPreviewBytes) {
        *problem = PreviewPane::tr("The file is too large to preview.");
        return std::nullopt;
    }
    return file.readAll();
}

QTextEdit::ExtraSelection band(const QTextBlock &block)
{
    QTextEdit::ExtraSelection selection;
    // The whole block, so that every line of a wrapped paragraph is on the band.
    selection.cursor = QTextCursor(block);
    selection.cursor.movePosition(QTextCursor::EndOfBlock, QTextCursor::KeepAnchor);
    selection.format.setBackground(PreviewPane::bandColor());
    selection.format.setProperty(QTextFormat::FullWidthSelection, true);
    return selection;
}

} // namespace

PreviewPane::PreviewPane(QWidget *parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("previewPane"));
    setMinimumSize(240, 140);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    auto *header = new QWidget(this);
    header->setObjectName(QStringLiteral("previewHeader"));
    auto *headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(12, 6, 6, 6);
    headerLayout->setSpacing(4);
    auto *names = new QVBoxLayout();
    names->setSpacing(0);
    m_title = new QLabel(header);
    m_title->setObjectName(QStringLiteral("previewTitle"));
    QFont titleFont = m_title->font();
    titleFont.setWeight(QFont::DemiBold);
    m_title->setFont(titleFont);
    m_location = new QLabel(header);
    m_location->setObjectName(QStringLiteral("previewLocation"));
    m_location->setForegroundRole(QPalette::PlaceholderText);
    for (QLabel *label : {m_title, m_location}) {
        label->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
        label->setTextFormat(Qt::PlainText);
    }
    names->addWidget(m_title);
    names->addWidget(m_location);
    headerLayout->addLayout(names, 1);
    const auto button = [header](const QString &name,
                                 const QString &icon,
                                 const QString &text,
                                 const QString &tip) {
        auto *b = new QToolButton(header);
        b->setObjectName(name);
        b->setIcon(themedIcon(icon.split(QLatin1Char('|'))));
        b->setText(text);
        b->setToolTip(tip);
        b->setAutoRaise(true);
        b->setToolButtonStyle(b->icon().isNull() ? Qt::ToolButtonTextOnly : Qt::ToolButtonIconOnly);
        return b;
    };
    m_previousPage = button(QStringLiteral("previewPreviousPage"),
                            QStringLiteral("go-previous|go-up"),
                            tr("Previous"),
                            tr("Previous page"));
    m_nextPage = button(QStringLiteral("previewNextPage"),
                        QStringLiteral("go-next|go-down"),
                        tr("Next"),
                        tr("Next page"));
    m_open = button(QStringLiteral("previewOpen"),
                    QStringLiteral("document-open"),
                    tr("Open"),
                    tr("Open the result in its application (Return)"));
    auto *hide = button(QStringLiteral("previewHide"),
                        QStringLiteral("window-close|dialog-close"),
                        tr("Hide"),
                        tr("Hide the preview (F8)"));
    for (QToolButton *b : {m_previousPage, m_nextPage, m_open, hide}) {
        headerLayout->addWidget(b);
    }
    connect(m_previousPage, &QToolButton::clicked, this, [this] {
        turnPdfPage(-1);
    });
    connect(m_nextPage, &QToolButton::clicked, this, [this] {
        turnPdfPage(1);
    });
    connect(m_open, &QToolButton::clicked, this, [this] {
        if (!m_result.filePath.isEmpty()) {
            emit openRequested(m_result);
        }
    });
    connect(hide, &QToolButton::clicked, this, &PreviewPane::hideRequested);
    layout->addWidget(header);
    auto *line = new QFrame(this);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setFixedHeight(1);
    line->setForegroundRole(QPalette::Mid);
    layout->addWidget(line);

    m_stack = new QStackedWidget(this);
    m_message = new QLabel(m_stack);
    m_message->setObjectName(QStringLiteral("previewMessage"));
    m_message->setAlignment(Qt::AlignCenter);
    m_message->setWordWrap(true);
    m_message->setMargin(24);
    m_message->setForegroundRole(QPalette::PlaceholderText);
    m_stack->addWidget(m_message);

    m_text = new QTextEdit(m_stack);
    m_text->setObjectName(QStringLiteral("previewText"));
    m_text->setReadOnly(true);
    m_text->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    m_text->setLineWrapMode(QTextEdit::NoWrap);
    m_text->setFrameShape(QFrame::NoFrame);
    m_text->document()->setDocumentMargin(8);
    QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    fixed.setPointSizeF(font().pointSizeF());
    m_text->document()->setDefaultFont(fixed);
    m_text->setTabStopDistance(QFontMetricsF(fixed).horizontalAdvance(QLatin1Char(' ')) * 8);
    m_stack->addWidget(m_text);

    m_document = new QTextBrowser(m_stack);
    m_document->setObjectName(QStringLiteral("previewDocument"));
    m_document->setOpenExternalLinks(true);
    m_document->setOpenLinks(false);
    m_document->setFrameShape(QFrame::NoFrame);
    m_document->document()->setDocumentMargin(14);
    m_stack->addWidget(m_document);

    m_pdf = new PdfPageView(m_stack);
    m_stack->addWidget(m_pdf);
    layout->addWidget(m_stack, 1);

    showMessage();
}

PreviewPane::Content PreviewPane::content() const
{
    const QWidget *shown = m_stack->currentWidget();
    if (shown == m_text) {
        return Content::Text;
    }
    if (shown == m_document) {
        return Content::Document;
    }
    if (shown == m_pdf) {
        return Content::Pdf;
    }
    return Content::Message;
}

QString PreviewPane::title() const
{
    return m_title->text();
}

QString PreviewPane::location() const
{
    return m_location->text();
}

QString PreviewPane::message() const
{
    return content() == Content::Message ? m_message->text() : QString();
}

int PreviewPane::pdfPage() const
{
    return m_pdf->page();
}

void PreviewPane::showMessage(const QString &message)
{
    m_result = SearchResult();
    m_hitLine = 0;
    m_hitBlock = QTextBlock();
    m_headings.clear();
    m_title->setText(tr("Preview"));
    m_location->clear();
    m_open->setVisible(false);
    m_previousPage->setVisible(false);
    m_nextPage->setVisible(false);
    m_message->setText(message.isEmpty() ? tr("Select a result to preview it here.") : message);
    m_stack->setCurrentWidget(m_message);
}

void PreviewPane::setHeader(const QString &location)
{
    const QFileInfo info(m_result.filePath);
    m_title->setText(info.fileName());
    // Relative to the result's own indexed folder (another tab's, after a search of every tab).
    const QString root = m_result.folder.isEmpty() ? m_directory : m_result.folder;
    QString folder = root.isEmpty() ? info.path() : QDir(root).relativeFilePath(info.path());
    if (!m_result.folder.isEmpty() && m_result.folder != m_directory) {
        folder = QFileInfo(m_result.folder).fileName()
                 + (folder == QLatin1String(".") ? QString() : QStringLiteral(" \u203a ") + folder);
    }
    if (folder == QLatin1String(".")) {
        folder.clear();
    }
    m_location->setText(folder.isEmpty() ? location
                                         : folder + QStringLiteral(" \u00b7 ") + location);
    m_title->setToolTip(m_result.filePath);
    m_location->setToolTip(m_location->text());
    m_open->setVisible(true);
}

void PreviewPane::showResult(const SearchResult &result, const QString &query, SearchMode mode)
{
    if (result.filePath.isEmpty()) {
        showMessage();
        return;
    }
    const QDateTime fileTime = QFileInfo(result.filePath).lastModified();
    if (content() != Content::Message && result == m_result && query == m_query && mode == m_mode
        && fileTime == m_fileTime) {
        return;
    }
    m_fileTime = fileTime;
    m_result = result;
    m_query = query;
    m_mode = mode;
    m_hitLine = 0;
    m_hitBlock = QTextBlock();
    m_headings.clear();
    m_previousPage->setVisible(false);
    m_nextPage->setVisible(false);
    QString problem;
    bool shown = false;
    switch (fileCategory(result)) {
    case FileCategory::Pdf: {
        // The engine's page; an index made before it marked pages leaves it to the file.
        const int page = result.page > 0
                             ? result.page
                             : pdfPageForLine(result.filePath, result.lineNumber).value_or(1);
        shown = showPdf(page - 1, &problem);
        break;
    }
    case FileCategory::Html:
        shown = showMarkup(true, &problem);
        break;
    case FileCategory::Markdown:
        shown = showMarkup(false, &problem);
        break;
    case FileCategory::Document:
        shown = showFormatted(&problem);
        break;
    case FileCategory::Plain:
        shown = showText(&problem);
        break;
    }
    if (!shown) {
        const SearchResult failed = result;
        showMessage(tr("No preview of %1: %2").arg(QFileInfo(failed.filePath).fileName(), problem));
        m_result = failed;
        setHeader(tr("line %1").arg(failed.lineNumber));
    }
}

bool PreviewPane::showText(QString *problem)
{
    const std::optional<QByteArray> bytes = readBytes(m_result.filePath, problem);
    if (!bytes) {
        return false;
    }
    const std::optional<QString> text = decodeText(*bytes);
    if (!text) {
        *problem = tr("it is not text.");
        return false;
    }
    QStringList lines = text->split(QLatin1Char('\n'));
    if (lines.size() > 1 && lines.last().isEmpty()) {
        lines.removeLast(); // the newline that ends the last line
    }
    for (QString &line : lines) {
        if (line.endsWith(QLatin1Char('\r'))) {
            line.chop(1);
        }
    }
    const int n = int(lines.size());
    const int hit = qBound(1, m_result.lineNumber, n);
    int first = 0;
    if (n > kMaxLines) {
        first = qBound(0, hit - 1 - kMaxLines / 2, n - kMaxLines);
    }
    const int last = qMin(n, first + kMaxLines);
    const int width = int(QString::number(last).size());

    const QColor ink = palette().color(QPalette::Text);
    QColor gutterInk = ink;
    gutterInk.setAlphaF(0.4f);
    QTextCharFormat gutterFormat;
    gutterFormat.setForeground(gutterInk);
    QTextCharFormat lineFormat;
    lineFormat.setForeground(ink);
    QTextCharFormat markFormat = lineFormat;
    markFormat.setBackground(matchColor());

    QTextDocument *doc = m_text->document();
    doc->clear();
    QTextCursor cursor(doc);
    cursor.beginEditBlock();
    int marks = 0;
    for (int i = first; i < last; ++i) {
        if (i > first) {
            cursor.insertBlock();
        }
        cursor.insertText(QString::asprintf("%*d  ", width, i + 1), gutterFormat);
        const QString &line = lines.at(i);
        qsizetype at = 0;
        if (marks < kMaxMarks) {
            for (const MatchSpan &span : findQueryMatches(line, m_query, m_mode)) {
                cursor.insertText(line.mid(at, span.start - at), lineFormat);
                cursor.insertText(line.mid(span.start, span.length), markFormat);
                at = span.start + span.length;
                if (++marks >= kMaxMarks) {
                    break;
                }
            }
        }
        cursor.insertText(line.mid(at), lineFormat);
    }
    cursor.endEditBlock();
    m_hitLine = hit;
    m_hitBlock = doc->findBlockByNumber(hit - 1 - first);
    // The band is drawn over the text's own backgrounds: the hit line's marks go over it again.
    QList<QTextEdit::ExtraSelection> selections = {band(m_hitBlock)};
    for (auto it = m_hitBlock.begin(); !it.atEnd(); ++it) {
        const QTextFragment fragment = it.fragment();
        if (fragment.charFormat().background().color() == matchColor()) {
            QTextEdit::ExtraSelection mark;
            mark.cursor = QTextCursor(doc);
            mark.cursor.setPosition(fragment.position());
            mark.cursor.setPosition(fragment.position() + fragment.length(),
                                    QTextCursor::KeepAnchor);
            mark.format.setBackground(matchColor());
            selections.append(mark);
        }
    }
    m_text->setExtraSelections(selections);
    setHeader(tr("line %1").arg(hit));
    m_stack->setCurrentWidget(m_text);
    scrollToHit(m_text);
    return true;
}

int PreviewPane::sourceLineShown(const QStringList &lines, int lineNumber)
{
    // The first line from the hit on whose text shows in the rendered document (markup-only
    // lines such as "<div>" or "---" show nothing); of its places in the document, the nearest
    // to where the line lies in the file.
    QTextDocument *doc = m_document->document();
    const bool html = fileCategory(m_result) == FileCategory::Html;
    const int firstLine = qBound(0, lineNumber - 1, qMax(0, int(lines.size()) - 1));
    const int guess = int(double(firstLine) / qMax(1, int(lines.size())) * doc->blockCount());
    for (int i = firstLine; i < lines.size() && i < firstLine + 40; i++) {
        const QString fragment = renderedFragment(lines.at(i), html);
        if (fragment.isEmpty()) {
            continue;
        }
        QTextBlock best;
        QTextCursor found = doc->find(fragment);
        for (int tries = 0; !found.isNull() && tries < 200; tries++) {
            if (!best.isValid()
                || qAbs(found.blockNumber() - guess) < qAbs(best.blockNumber() - guess)) {
                best = found.block();
            }
            found = doc->find(fragment, found);
        }
        if (best.isValid()) {
            m_hitBlock = best;
            return i + 1;
        }
    }
    m_hitBlock = doc->findBlockByNumber(qBound(0, guess, doc->blockCount() - 1));
    return 0;
}

bool PreviewPane::showMarkup(bool html, QString *problem)
{
    const std::optional<QByteArray> bytes = readBytes(m_result.filePath, problem);
    if (!bytes) {
        return false;
    }
    const std::optional<QString> text = html ? decodeHtml(*bytes) : decodeText(*bytes);
    if (!text) {
        *problem = tr("it is not text.");
        return false;
    }
    const QFileInfo info(m_result.filePath);
    m_document->clear();
    m_document->setSearchPaths({info.absolutePath()});
    m_document->document()->setBaseUrl(QUrl::fromLocalFile(info.absolutePath() + QLatin1Char('/')));
    if (html) {
        m_document->setHtml(*text);
    } else {
        m_document->setMarkdown(*text);
    }
    m_hitLine = sourceLineShown(text->split(QLatin1Char('\n')), m_result.lineNumber);
    markDocument();
    setHeader(tr("line %1").arg(qMax(1, m_result.lineNumber)));
    m_stack->setCurrentWidget(m_document);
    scrollToHit(m_document);
    return true;
}

QTextBlock PreviewPane::nearBlockWithSnippet(const QTextBlock &guess) const
{
    if (!guess.isValid()) {
        return guess;
    }
    for (int count : {8, 4}) {
        const QString pattern = snippetPattern(m_result.snippet, m_query, m_mode, count);
        if (pattern.isEmpty()) {
            break;
        }
        const QRegularExpression re(pattern, QRegularExpression::CaseInsensitiveOption);
        // Outwards from the guess, the nearest block first.
        QTextBlock before = guess;
        QTextBlock after = guess.next();
        for (int step = 0; step <= kSnippetReach; step++) {
            if (before.isValid()) {
                if (re.match(before.text()).hasMatch()) {
                    return before;
                }
                before = before.previous();
            }
            if (after.isValid()) {
                if (re.match(after.text()).hasMatch()) {
                    return after;
                }
                after = after.next();
            }
        }
    }
    return guess;
}

bool PreviewPane::showFormatted(QString *problem)
{
    if (!QFileInfo::exists(m_result.filePath)) {
        *problem = tr("The file is no longer there.");
        return false;
    }
    m_document->clear();
    m_document->setSearchPaths({});
    QTextDocument *doc = m_document->document();
    if (!readFormattedDocument(m_result.filePath, doc)) {
        *problem = tr("its text cannot be read.");
        return false;
    }
    m_hitBlock = nearBlockWithSnippet(blockForLine(doc, m_result.lineNumber));
    m_headings = headingPath(m_hitBlock);
    markDocument();
    // The result's own headings, as the list shows them, else those the formatted text gives.
    setHeader(!m_result.headingPath.isEmpty() ? m_result.headingPath
              : m_headings.isEmpty()          ? tr("line %1").arg(qMax(1, m_result.lineNumber))
                                              : m_headings.join(QStringLiteral(" \u203a ")));
    m_stack->setCurrentWidget(m_document);
    scrollToHit(m_document);
    return true;
}

void PreviewPane::markDocument()
{
    QList<QTextEdit::ExtraSelection> selections;
    if (m_hitBlock.isValid()) {
        selections.append(band(m_hitBlock));
    }
    QTextDocument *doc = m_document->document();
    const QString text = doc->toPlainText(); // one character per position of the document
    QTextCharFormat markFormat;
    markFormat.setBackground(matchColor());
    for (const MatchSpan &span : findQueryMatches(text, m_query, m_mode)) {
        if (selections.size() > kMaxMarks) {
            break;
        }
        QTextEdit::ExtraSelection mark;
        mark.cursor = QTextCursor(doc);
        mark.cursor.setPosition(int(span.start));
        mark.cursor.setPosition(int(span.start + span.length), QTextCursor::KeepAnchor);
        mark.format = markFormat;
        selections.append(mark);
    }
    m_document->setExtraSelections(selections);
}

bool PreviewPane::showPdf(int page, QString *problem)
{
    if (!m_pdf->open(m_result.filePath)) {
        *problem = QFileInfo::exists(m_result.filePath) ? tr("it cannot be read as a PDF.")
                                                        : tr("The file is no longer there.");
        return false;
    }
    const int shown = qBound(0, page, m_pdf->pageCount() - 1);
    const QString text = m_pdf->pageText(shown);
    QList<PdfTextRange> matches;
    for (const MatchSpan &span : findQueryMatches(text, m_query, m_mode)) {
        matches.append(PdfTextRange{int(span.start), int(span.length)});
        if (matches.size() >= kMaxMarks) {
            break;
        }
    }
    PdfTextRange passage;
    for (int count : {8, 4}) {
        const QString pattern = snippetPattern(m_result.snippet, m_query, m_mode, count);
        const QRegularExpressionMatch m =
            pattern.isEmpty()
                ? QRegularExpressionMatch()
                : QRegularExpression(pattern, QRegularExpression::CaseInsensitiveOption)
                      .match(text);
        if (m.hasMatch()) {
            passage = PdfTextRange{int(m.capturedStart()), int(m.capturedLength())};
            break;
        }
    }
    m_stack->setCurrentWidget(m_pdf);
    m_pdf->showPage(shown, matches, passage);
    const bool hitPage = m_result.page == shown + 1 && m_result.pageLine > 0;
    setHeader(hitPage ? tr("page %1 of %2, line %3")
                            .arg(shown + 1)
                            .arg(m_pdf->pageCount())
                            .arg(m_result.pageLine)
                      : tr("page %1 of %2").arg(shown + 1).arg(m_pdf->pageCount()));
    m_previousPage->setVisible(true);
    m_nextPage->setVisible(true);
    m_previousPage->setEnabled(shown > 0);
    m_nextPage->setEnabled(shown + 1 < m_pdf->pageCount());
    return true;
}

void PreviewPane::turnPdfPage(int delta)
{
    if (content() != Content::Pdf) {
        return;
    }
    QString problem;
    // Another page holds no passage of this result; only the query's matches are marked there.
    const QString snippet = m_result.snippet;
    m_result.snippet.clear();
    showPdf(m_pdf->page() + delta, &problem);
    m_result.snippet = snippet;
}

void PreviewPane::scrollToHit(QTextEdit *view)
{
    // After the layout of the new text, on the next turn of the event loop.
    QTimer::singleShot(0, this, [this, view] {
        const QTextBlock block = m_hitBlock;
        if (!block.isValid() || block.document() != view->document()) {
            return;
        }
        const QRectF rect = view->document()->documentLayout()->blockBoundingRect(block);
        const int height = view->viewport()->height();
        view->verticalScrollBar()->setValue(qMax(0, int(rect.top() - height / 3.0)));
        // The first mark on the hit's line in view when it lies beyond the right edge: a
        // character format in the text view, an extra selection in documents.
        int markAt = -1;
        for (auto it = block.begin(); !it.atEnd() && markAt < 0; ++it) {
            if (it.fragment().charFormat().background().color() == matchColor()) {
                markAt = it.fragment().position();
            }
        }
        for (const QTextEdit::ExtraSelection &s : view->extraSelections()) {
            if (markAt < 0 && s.cursor.hasSelection() && s.cursor.block() == block
                && s.format.background().color() == matchColor()) {
                markAt = s.cursor.selectionStart();
            }
        }
        int x = 0;
        if (markAt >= 0) {
            QTextCursor c(block);
            c.setPosition(markAt);
            x = view->cursorRect(c).left() + view->horizontalScrollBar()->value();
        }
        const int width = view->viewport()->width();
        view->horizontalScrollBar()->setValue(x > width - 40 ? x - width / 3 : 0);
    });
}

void PreviewPane::changeEvent(QEvent *event)
{
    // The text's colours follow the palette; build it again when that changes.
    if (event->type() == QEvent::PaletteChange && content() == Content::Text) {
        m_fileTime = QDateTime();
        showResult(m_result, m_query, m_mode);
    }
    QWidget::changeEvent(event);
}

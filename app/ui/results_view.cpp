/*
** results_view.cpp -- painting, hovering, pinning and opening search results.
*/
#include "results_view.h"

#include "directory_state.h"
#include "icons.h"
#include "match_marks.h"
#include "result_opener.h"
#include "results_model.h"
#include "settings.h"

#include <QApplication>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QDir>
#include <QFileInfo>
#include <QKeyEvent>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QTextLayout>

namespace
{

constexpr int kPadX = 14;
constexpr int kPadY = 8;
constexpr int kIconSize = 16;
constexpr int kPinSize = 22;
constexpr int kSnippetLines = 2;
// How far a passage shown under its file's row is indented.
constexpr int kPassageIndent = 26;

QColor withAlpha(QColor color, float alpha)
{
    color.setAlphaF(alpha);
    return color;
}

// A bookmark ribbon: filled for a pinned row, outlined otherwise.
void drawPin(QPainter *painter, const QRect &rect, bool pinned, const QColor &ink,
             const QColor &accent)
{
    const QRectF r = QRectF(rect).adjusted(6, 4, -6, -3);
    QPainterPath path;
    path.moveTo(r.left(), r.top());
    path.lineTo(r.right(), r.top());
    path.lineTo(r.right(), r.bottom());
    path.lineTo(r.center().x(), r.bottom() - r.width() * 0.45);
    path.lineTo(r.left(), r.bottom());
    path.closeSubpath();
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    if (pinned) {
        painter->setPen(QPen(accent, 1.2));
        painter->setBrush(accent);
    } else {
        painter->setPen(QPen(withAlpha(ink, 0.45f), 1.2));
        painter->setBrush(Qt::NoBrush);
    }
    painter->drawPath(path);
    painter->restore();
}

// The score pill of a row: left of the pin, level with the header.
QRect scoreRectFor(const QRect &rowRect, const QFont &font, const QString &score)
{
    QFont scoreFont = font;
    scoreFont.setPointSizeF(font.pointSizeF() * 0.9);
    const QFontMetrics sfm(scoreFont);
    const QFontMetrics fm(font);
    const int headerHeight = qMax(fm.height(), kPinSize - 4);
    const QRect pin = ResultDelegate::pinRect(rowRect);
    const int width = sfm.horizontalAdvance(score) + 12;
    return QRect(pin.left() - 8 - width,
                 rowRect.top() + kPadY + (headerHeight - sfm.height() - 2) / 2,
                 width,
                 sfm.height() + 2);
}

QString scoreText(const QModelIndex &index)
{
    return QString::number(index.data(ResultsModel::ScoreRole).toDouble(), 'f', 3);
}

} // namespace

// ---- delegate ----

QString ResultDelegate::moreText(int more, bool expanded)
{
    return expanded ? tr("hide %n more \u25b4", "", more)
                    : tr("%n more in this file \u25be", "", more);
}

QString ResultDelegate::locationText(const QModelIndex &index)
{
    const int page = index.data(ResultsModel::PageRole).toInt();
    if (page > 0) {
        return tr("p. %1, line %2").arg(page).arg(index.data(ResultsModel::PageLineRole).toInt());
    }
    const QString headings = index.data(ResultsModel::HeadingPathRole).toString();
    return headings.isEmpty() ? tr("line %1").arg(index.data(ResultsModel::LineNumberRole).toInt())
                              : headings;
}

QRect ResultDelegate::moreRect(const QStyleOptionViewItem &option, const QModelIndex &index)
{
    const int more = index.data(ResultsModel::MoreInFileRole).toInt();
    if (more <= 0) {
        return QRect();
    }
    const QRect score = scoreRectFor(option.rect, option.font, scoreText(index));
    const QFontMetrics fm(option.font);
    const QString text = moreText(more, index.data(ResultsModel::IsExpandedRole).toBool());
    const int width = fm.horizontalAdvance(text) + 8;
    return QRect(score.left() - 10 - width,
                 option.rect.top() + kPadY - 2,
                 width,
                 qMax(fm.height(), kPinSize - 4) + 4);
}

ResultDelegate::ResultDelegate(QObject *parent) : QStyledItemDelegate(parent) {}

void ResultDelegate::setQuery(const QString &query, SearchMode mode)
{
    m_query = query;
    m_mode = mode;
}

QRect ResultDelegate::pinRect(const QRect &rowRect)
{
    return QRect(
        rowRect.right() - kPadX - kPinSize + 4, rowRect.top() + kPadY - 2, kPinSize, kPinSize);
}

QSize ResultDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const
{
    const QFontMetrics fm(option.font);
    const int height =
        kPadY + qMax(fm.height(), kPinSize - 4) + 6 + kSnippetLines * fm.lineSpacing() + kPadY + 1;
    return QSize(400, height);
}

void ResultDelegate::paint(QPainter *painter, const QStyleOptionViewItem &option,
                           const QModelIndex &index) const
{
    painter->save();
    const QRect rect = option.rect;
    const QPalette &pal = option.palette;
    const bool selected = option.state & QStyle::State_Selected;
    const bool hovered = option.state & QStyle::State_MouseOver;
    const bool pinned = index.data(ResultsModel::IsPinnedRole).toBool();
    const QColor accent = pal.color(QPalette::Highlight);
    const QColor ink = selected ? pal.color(QPalette::HighlightedText) : pal.color(QPalette::Text);

    // Background: selection, hover, or a faint tint for pinned rows.
    if (selected) {
        painter->fillRect(rect, accent);
    } else if (hovered) {
        painter->fillRect(rect, withAlpha(pal.color(QPalette::Text), 0.05f));
    } else if (pinned) {
        painter->fillRect(rect, withAlpha(accent, 0.07f));
    }
    if (pinned) {
        painter->fillRect(QRect(rect.left(), rect.top(), 3, rect.height()),
                          selected ? pal.color(QPalette::HighlightedText) : accent);
    }
    painter->setPen(withAlpha(pal.color(QPalette::Text), 0.08f));
    painter->drawLine(rect.left() + kPadX, rect.bottom(), rect.right() - kPadX, rect.bottom());

    const QFontMetrics fm(option.font);
    const int lineTop = rect.top() + kPadY;
    const int headerHeight = qMax(fm.height(), kPinSize - 4);
    int x = rect.left() + kPadX;
    // A passage under its file's row: indented behind a guide line, without the file's icon.
    const bool passage = index.data(ResultsModel::IsPassageRole).toBool();
    if (passage) {
        painter->fillRect(QRect(x + 7, rect.top(), 2, rect.height()), withAlpha(ink, 0.18f));
        x += kPassageIndent;
    }

    // File icon.
    const QIcon icon =
        passage ? QIcon()
                : themedIcon(fileTypeIconNames(index.data(ResultsModel::FileTypeRole).toUInt()),
                             QStyle::SP_FileIcon);
    if (!icon.isNull()) {
        icon.paint(painter,
                   QRect(x, lineTop + (headerHeight - kIconSize) / 2, kIconSize, kIconSize));
        x += kIconSize + 8;
    }

    // Right side: the pin toggle and the score.
    const QRect pin = pinRect(rect);
    drawPin(painter, pin, pinned, ink, selected ? pal.color(QPalette::HighlightedText) : accent);
    QFont scoreFont = option.font;
    scoreFont.setPointSizeF(option.font.pointSizeF() * 0.9);
    const QString score = scoreText(index);
    const QRect scoreRect = scoreRectFor(rect, option.font, score);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(Qt::NoPen);
    painter->setBrush(withAlpha(ink, 0.08f));
    painter->drawRoundedRect(scoreRect, scoreRect.height() / 2.0, scoreRect.height() / 2.0);
    painter->setFont(scoreFont);
    painter->setPen(withAlpha(ink, 0.7f));
    painter->drawText(scoreRect, Qt::AlignCenter, score);

    // "n more in this file", a link left of the score.
    int headerRight = scoreRect.left() - 10;
    const QRect more = moreRect(option, index);
    if (more.isValid()) {
        painter->setFont(option.font);
        painter->setPen(selected ? pal.color(QPalette::HighlightedText)
                                 : pal.color(QPalette::Link));
        painter->drawText(more,
                          Qt::AlignCenter,
                          moreText(index.data(ResultsModel::MoreInFileRole).toInt(),
                                   index.data(ResultsModel::IsExpandedRole).toBool()));
        headerRight = more.left() - 6;
    }

    // Header: bold file name, then the relative path and line, dimmed; a passage gives its line.
    QFont nameFont = option.font;
    nameFont.setWeight(QFont::DemiBold);
    const QFontMetrics nfm(nameFont);
    const QString line = locationText(index);
    const QString name = passage ? line : index.data(ResultsModel::FileNameRole).toString();
    const QString filePath = index.data(ResultsModel::FilePathRole).toString();
    const QString folder = index.data(ResultsModel::FolderRole).toString();
    const QString root = folder.isEmpty() ? m_directory : folder;
    QString relative = root.isEmpty() ? filePath : QDir(root).relativeFilePath(filePath);
    if (m_showFolders && !folder.isEmpty()) {
        relative = QFileInfo(folder).fileName() + QStringLiteral(" \u203a ") + relative;
    }
    const QString suffix = QStringLiteral(" \u00b7 ") + line;
    const int nameWidth = qMin(nfm.horizontalAdvance(name) + 4, qMax(0, headerRight - x));
    painter->setFont(nameFont);
    painter->setPen(ink);
    const int baselineY = lineTop + (headerHeight - fm.height()) / 2;
    painter->drawText(QRect(x, baselineY, nameWidth, fm.height()),
                      Qt::AlignLeft | Qt::AlignVCenter,
                      nfm.elidedText(name, Qt::ElideRight, nameWidth));
    const int whereX = x + nameWidth + 10;
    if (headerRight - whereX > 20 && !passage) {
        // The path gives way before where the match is (its line, page or headings).
        const int room = headerRight - whereX - fm.horizontalAdvance(suffix);
        const QString where =
            room > fm.horizontalAdvance(QStringLiteral("ab\u2026yz"))
                ? fm.elidedText(relative, Qt::ElideMiddle, room) + suffix
                : fm.elidedText(relative + suffix, Qt::ElideMiddle, headerRight - whereX);
        painter->setFont(option.font);
        painter->setPen(withAlpha(ink, 0.6f));
        painter->drawText(QRect(whereX, baselineY, headerRight - whereX, fm.height()),
                          Qt::AlignLeft | Qt::AlignVCenter,
                          where);
    }

    // Snippet: white space collapsed, two lines at most, the query's matches marked.
    const QString snippet = index.data(ResultsModel::SnippetRole).toString().simplified();
    const int snippetLeft = passage ? x : rect.left() + kPadX + (icon.isNull() ? 0 : kIconSize + 8);
    const int snippetWidth = rect.right() - kPadX - snippetLeft;
    QList<QTextLayout::FormatRange> marks;
    for (const MatchSpan &span : findQueryMatches(snippet, m_query, m_mode)) {
        QTextLayout::FormatRange range;
        range.start = static_cast<int>(span.start);
        range.length = static_cast<int>(span.length);
        range.format.setBackground(QColor::fromRgbF(1.0f, 0.85f, 0.2f, selected ? 0.6f : 0.45f));
        marks.append(range);
    }
    QTextLayout layout(snippet, option.font);
    layout.setFormats(marks);
    QTextOption textOption;
    textOption.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(textOption);
    layout.beginLayout();
    qreal y = 0;
    int drawn = 0;
    int usedChars = 0;
    while (drawn < kSnippetLines) {
        QTextLine line = layout.createLine();
        if (!line.isValid()) {
            break;
        }
        line.setLineWidth(snippetWidth);
        line.setPosition(QPointF(0, y));
        y += fm.lineSpacing();
        usedChars = line.textStart() + line.textLength();
        ++drawn;
    }
    layout.endLayout();
    const QPointF origin(snippetLeft, lineTop + headerHeight + 6);
    painter->setPen(withAlpha(ink, 0.85f));
    const bool truncated = usedChars < snippet.size();
    if (!truncated || drawn < kSnippetLines) {
        layout.draw(painter, origin);
    } else {
        // Draw the first line as laid out, then the rest elided on the last line.
        for (int i = 0; i < drawn - 1; ++i) {
            layout.lineAt(i).draw(painter, origin);
        }
        const QTextLine last = layout.lineAt(drawn - 1);
        const int start = last.textStart();
        const QString tail = fm.elidedText(snippet.mid(start), Qt::ElideRight, snippetWidth);
        QList<QTextLayout::FormatRange> tailMarks;
        for (QTextLayout::FormatRange range : marks) {
            const int end = range.start + range.length;
            if (end <= start) {
                continue;
            }
            range.start = qMax(0, range.start - start);
            range.length = qMin(end - start, static_cast<int>(tail.size())) - range.start;
            if (range.length > 0) {
                tailMarks.append(range);
            }
        }
        QTextLayout tailLayout(tail, option.font);
        tailLayout.setFormats(tailMarks);
        tailLayout.beginLayout();
        QTextLine line = tailLayout.createLine();
        line.setLineWidth(snippetWidth + 20);
        line.setPosition(QPointF(0, last.y()));
        tailLayout.endLayout();
        tailLayout.draw(painter, origin);
    }
    painter->restore();
}

// ---- view ----

ResultsView::ResultsView(const Settings *settings, QWidget *parent)
    : QListView(parent), m_settings(settings)
{
    setObjectName(QStringLiteral("resultsList"));
    m_delegate = new ResultDelegate(this);
    setItemDelegate(m_delegate);
    setMouseTracking(true);
    setUniformItemSizes(true);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setFrameShape(QFrame::NoFrame);
    setAttribute(Qt::WA_Hover);
    m_hoverTimer.setSingleShot(true);
    m_hoverTimer.setInterval(kHoverDelayMs);
    connect(&m_hoverTimer, &QTimer::timeout, this, [this] {
        if (m_hoverRow >= 0) {
            emit previewRequested(m_hoverRow, false);
        }
    });
    connect(this, &QAbstractItemView::activated, this, &ResultsView::openResult);
}

void ResultsView::setState(DirectoryState *state)
{
    if (state && m_state == state && model() == state->resultsModel()) {
        return;
    }
    delete m_stateLink;
    m_stateLink = nullptr;
    m_hoverTimer.stop();
    m_hoverRow = -1;
    m_state = state;
    setModel(state ? state->resultsModel() : nullptr);
    if (state) {
        m_stateLink = new QObject(this);
        m_delegate->setDirectory(state->directoryPath());
        auto repaint = [this] {
            refreshQuery();
            viewport()->update();
        };
        connect(state, &DirectoryState::searchFinished, m_stateLink, repaint);
        connect(state, &DirectoryState::isSearchingChanged, m_stateLink, repaint);
        connect(state, &DirectoryState::isIngestingChanged, m_stateLink, repaint);
        connect(state, &DirectoryState::queryErrorChanged, m_stateLink, repaint);
        connect(state, &DirectoryState::displayResultsChanged, m_stateLink, [this] {
            // The rows were replaced; a pending hover would preview another result.
            m_hoverTimer.stop();
            m_hoverRow = -1;
        });
        // The rows were rebuilt (new results, a pin, a file opened or closed).
        connect(state->resultsModel(), &QAbstractItemModel::modelReset, m_stateLink, [this] {
            keepCurrentResult();
        });
        connect(state, &QObject::destroyed, m_stateLink, [this] {
            setState(nullptr);
        });
    }
    refreshQuery();
    viewport()->update();
    m_currentId.clear();
    keepCurrentResult();
}

void ResultsView::keepCurrentResult()
{
    const int rows = model() ? model()->rowCount() : 0;
    int row = rows > 0 ? 0 : -1;
    for (int i = 0; i < rows && !m_currentId.isEmpty(); ++i) {
        if (resultAt(i).id == m_currentId) {
            row = i;
            break;
        }
    }
    if (row < 0) {
        emit previewRequested(-1, false);
    } else if (currentIndex().row() != row) {
        setCurrentIndex(model()->index(row, 0));
    } else {
        emit previewRequested(row, false);
    }
}

void ResultsView::currentChanged(const QModelIndex &current, const QModelIndex &previous)
{
    QListView::currentChanged(current, previous);
    m_currentId = current.isValid() ? resultAt(current.row()).id : QString();
    emit previewRequested(current.isValid() ? current.row() : -1, false);
}

void ResultsView::refreshQuery()
{
    if (m_state) {
        m_delegate->setQuery(m_state->lastQuery(), m_state->lastMode());
        m_delegate->setShowFolders(m_state->searchesAcrossTabs());
    } else {
        m_delegate->setQuery(QString(), SearchMode::Semantic);
    }
}

SearchResult ResultsView::resultAt(int row) const
{
    if (!m_state) {
        return SearchResult();
    }
    return m_state->resultsModel()->result(row);
}

void ResultsView::openResult(const QModelIndex &index)
{
    if (index.isValid() && m_state) {
        ::openResult(resultAt(index.row()), *m_settings, m_state);
    }
}

void ResultsView::previewRow(int row)
{
    if (m_state && row >= 0 && row < m_state->resultsModel()->rowCount()) {
        emit previewRequested(row, true);
    }
}

void ResultsView::togglePin(int row)
{
    if (!m_state || row < 0 || row >= m_state->resultsModel()->rowCount()) {
        return;
    }
    const QString id = resultAt(row).id;
    m_state->togglePin(resultAt(row));
    // Keep the same result current after the list was rebuilt around it.
    for (int i = 0; i < m_state->resultsModel()->rowCount(); ++i) {
        if (resultAt(i).id == id) {
            setCurrentIndex(model()->index(i, 0));
            break;
        }
    }
}

void ResultsView::hoverRow(int row)
{
    if (row == m_hoverRow) {
        return;
    }
    m_hoverRow = row;
    m_hoverTimer.stop();
    if (row >= 0 && m_settings->hoverPreview()) {
        m_hoverTimer.start();
    }
}

void ResultsView::mouseMoveEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    hoverRow(index.isValid() ? index.row() : -1);
    if (index.isValid()) {
        const QPoint at = event->position().toPoint();
        const bool overLink = ResultDelegate::pinRect(visualRect(index)).contains(at)
                              || moreLinkRect(index).contains(at);
        viewport()->setCursor(overLink ? Qt::PointingHandCursor : Qt::ArrowCursor);
    }
    QListView::mouseMoveEvent(event);
}

void ResultsView::toggleFile(int row)
{
    if (!m_state || row < 0 || row >= m_state->resultsModel()->rowCount()) {
        return;
    }
    const SearchResult result = resultAt(row);
    const QModelIndex index = model()->index(row, 0);
    if (index.data(ResultsModel::IsPassageRole).toBool()) {
        // From a passage: close its file and go back to the file's row.
        for (int i = row - 1; i >= 0; --i) {
            if (!model()->index(i, 0).data(ResultsModel::IsPassageRole).toBool()) {
                setCurrentIndex(model()->index(i, 0));
                break;
            }
        }
        m_state->toggleFile(result.filePath);
        return;
    }
    if (index.data(ResultsModel::MoreInFileRole).toInt() > 0) {
        m_state->toggleFile(result.filePath);
    }
}

QRect ResultsView::moreLinkRect(const QModelIndex &index) const
{
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    option.rect = visualRect(index);
    return ResultDelegate::moreRect(option, index);
}

void ResultsView::mouseReleaseEvent(QMouseEvent *event)
{
    const QModelIndex index = indexAt(event->position().toPoint());
    if (event->button() == Qt::LeftButton && index.isValid()
        && moreLinkRect(index).contains(event->position().toPoint())) {
        toggleFile(index.row());
        event->accept();
        return;
    }
    if (event->button() == Qt::LeftButton && index.isValid()
        && ResultDelegate::pinRect(visualRect(index)).contains(event->position().toPoint())) {
        togglePin(index.row());
        event->accept();
        return;
    }
    QListView::mouseReleaseEvent(event);
}

void ResultsView::leaveEvent(QEvent *event)
{
    hoverRow(-1);
    QListView::leaveEvent(event);
}

void ResultsView::keyPressEvent(QKeyEvent *event)
{
    const int row = currentIndex().isValid() ? currentIndex().row() : -1;
    if (event->key() == Qt::Key_Space && event->modifiers() == Qt::NoModifier) {
        previewRow(row);
        return;
    }
    if (event->key() == Qt::Key_D && event->modifiers() == Qt::ControlModifier) {
        togglePin(row);
        return;
    }
    if (event->key() == Qt::Key_Escape) {
        emit focusSearchRequested();
        return;
    }
    // Right opens a file's other passages, Left closes them (from the file or a passage).
    const QModelIndex current = currentIndex();
    const bool passage = current.data(ResultsModel::IsPassageRole).toBool();
    const bool expanded = current.data(ResultsModel::IsExpandedRole).toBool();
    if (event->key() == Qt::Key_Right && current.isValid() && !passage && !expanded) {
        toggleFile(row);
        return;
    }
    if (event->key() == Qt::Key_Left && current.isValid() && (passage || expanded)) {
        toggleFile(row);
        return;
    }
    if (event->key() == Qt::Key_Up && row <= 0) {
        emit focusSearchRequested();
        return;
    }
    QListView::keyPressEvent(event);
}

void ResultsView::contextMenuEvent(QContextMenuEvent *event)
{
    const QModelIndex index = indexAt(event->pos());
    if (!index.isValid() || !m_state) {
        return;
    }
    const SearchResult result = resultAt(index.row());
    const int row = index.row();
    QMenu menu(this);
    menu.addAction(themedIcon(QStringLiteral("document-open")), tr("Open"), this, [this, index] {
        openResult(index);
    });
    menu.addAction(tr("Preview"), this, [this, row] {
        previewRow(row);
    });
    const int more = index.data(ResultsModel::MoreInFileRole).toInt();
    if (more > 0 || index.data(ResultsModel::IsPassageRole).toBool()) {
        const bool open = index.data(ResultsModel::IsExpandedRole).toBool()
                          || index.data(ResultsModel::IsPassageRole).toBool();
        menu.addAction(open ? tr("Hide the File's Other Passages")
                            : tr("Show %n More in This File", "", more),
                       this,
                       [this, row] {
                           toggleFile(row);
                       });
    }
    menu.addSeparator();
    menu.addAction(
        m_state->isPinned(result) ? tr("Unpin Result") : tr("Pin Result"), this, [this, row] {
            togglePin(row);
        });
    menu.addAction(themedIcon(QStringLiteral("edit-copy")), tr("Copy Path"), this, [result] {
        QApplication::clipboard()->setText(result.filePath);
    });
    menu.exec(event->globalPos());
}

void ResultsView::paintEvent(QPaintEvent *event)
{
    QListView::paintEvent(event);
    if (!m_state || (model() && model()->rowCount() > 0)) {
        return;
    }
    QString title;
    QString detail;
    const QString name = QFileInfo(m_state->directoryPath()).fileName();
    if (m_state->isSearching()) {
        title = tr("Searching\u2026");
    } else if (!m_state->queryError().isEmpty()) {
        title = tr("The query was not run");
        detail = tr("Correct it as the message under the search field says, or choose Text to "
                    "search for it as written.");
    } else if (!m_state->lastQuery().isEmpty()) {
        title = tr("No results for \u201c%1\u201d").arg(m_state->lastQuery());
        detail = tr("Try other words, or another search mode.");
    } else if (m_state->isIngesting()) {
        title = tr("Indexing %1\u2026").arg(name);
        detail = tr("You can search while the directory is being indexed.");
    } else {
        title = tr("Search %1").arg(name);
        detail = tr("Type a question or a phrase and press Return.\n"
                    "Hybrid ranks passages by their words and their meaning; Text and Regex "
                    "match exactly.");
    }
    QPainter painter(viewport());
    QFont titleFont = font();
    titleFont.setPointSizeF(font().pointSizeF() * 1.35);
    titleFont.setWeight(QFont::DemiBold);
    const QFontMetrics tfm(titleFont);
    const QRect area = viewport()->rect().adjusted(24, 0, -24, 0);
    const int detailHeight = detail.isEmpty()
                                 ? 0
                                 : fontMetrics()
                                       .boundingRect(QRect(0, 0, area.width(), 10000),
                                                     Qt::AlignHCenter | Qt::TextWordWrap,
                                                     detail)
                                       .height();
    const int top = area.center().y() - (tfm.height() + 8 + detailHeight) / 2 - 20;
    QColor dim = palette().color(QPalette::Text);
    dim.setAlphaF(0.75f);
    painter.setPen(dim);
    painter.setFont(titleFont);
    painter.drawText(QRect(area.left(), top, area.width(), tfm.height()),
                     Qt::AlignCenter,
                     tfm.elidedText(title, Qt::ElideMiddle, area.width()));
    if (!detail.isEmpty()) {
        dim.setAlphaF(0.55f);
        painter.setPen(dim);
        painter.setFont(font());
        painter.drawText(QRect(area.left(), top + tfm.height() + 8, area.width(), detailHeight),
                         Qt::AlignHCenter | Qt::AlignTop | Qt::TextWordWrap,
                         detail);
    }
}

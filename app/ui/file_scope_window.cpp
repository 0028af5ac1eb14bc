/*
** file_scope_window.cpp -- the file scope table, its sorting and its filter.
*/
#include "file_scope_window.h"

#include "directory_state.h"
#include "icons.h"
#include "result_opener.h"
#include "window_frames.h"

#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPixmap>
#include <QStackedWidget>
#include <QTableView>
#include <QVBoxLayout>

// ---- table model ----

FileTableModel::FileTableModel(QObject *parent) : QAbstractTableModel(parent) {}

void FileTableModel::setSource(FileListModel *source)
{
    beginResetModel();
    delete m_sourceLink;
    m_sourceLink = nullptr;
    m_source = source;
    if (source) {
        m_sourceLink = new QObject(this);
        connect(source, &QAbstractItemModel::modelAboutToBeReset, m_sourceLink, [this] {
            beginResetModel();
        });
        connect(source, &QAbstractItemModel::modelReset, m_sourceLink, [this] {
            endResetModel();
        });
        connect(source, &QObject::destroyed, m_sourceLink, [this] {
            setSource(nullptr);
        });
    }
    endResetModel();
}

int FileTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() || !m_source ? 0 : m_source->rowCount();
}

int FileTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : kColumnCount;
}

std::optional<FileSortKey> FileTableModel::sortKeyFor(int column)
{
    switch (column) {
    case NameColumn:
        return FileSortKey::Name;
    case TypeColumn:
        return FileSortKey::Type;
    case SizeColumn:
        return FileSortKey::Size;
    case StatusColumn:
        return FileSortKey::Status;
    default:
        return std::nullopt;
    }
}

int FileTableModel::columnFor(FileSortKey key)
{
    switch (key) {
    case FileSortKey::Type:
        return TypeColumn;
    case FileSortKey::Size:
        return SizeColumn;
    case FileSortKey::Status:
        return StatusColumn;
    case FileSortKey::Name:
        break;
    }
    return NameColumn;
}

QVariant FileTableModel::data(const QModelIndex &index, int role) const
{
    if (!m_source || !index.isValid() || index.row() >= m_source->rowCount()) {
        return QVariant();
    }
    const QModelIndex src = m_source->index(index.row(), 0);
    const int rank = src.data(FileListModel::StatusRankRole).toInt();
    const int column = index.column();
    if (role == Qt::DisplayRole) {
        switch (column) {
        case NameColumn:
            return src.data(FileListModel::NameRole);
        case FolderColumn: {
            const QString folder =
                QFileInfo(src.data(FileListModel::RelativePathRole).toString()).path();
            return folder == QLatin1String(".") ? QString() : folder;
        }
        case TypeColumn:
            return src.data(FileListModel::FileTypeRole);
        case SizeColumn:
            return src.data(FileListModel::FileSizeTextRole);
        case ChunksColumn:
            return rank == 2 ? QString() : src.data(FileListModel::ChunkCountRole).toString();
        case StatusColumn:
            return src.data(FileListModel::StatusTextRole);
        }
    } else if (role == Qt::ToolTipRole && column <= FolderColumn) {
        return src.data(FileListModel::RelativePathRole);
    } else if (role == Qt::ToolTipRole && column == StatusColumn) {
        return src.data(FileListModel::StatusTextRole); // an exclusion rule may be long
    } else if (role == Qt::TextAlignmentRole) {
        if (column == SizeColumn || column == ChunksColumn) {
            return QVariant(Qt::AlignRight | Qt::AlignVCenter);
        }
        return QVariant(Qt::AlignLeft | Qt::AlignVCenter);
    } else if (role == Qt::DecorationRole && column == NameColumn) {
        const QStringList names =
            src.data(FileListModel::IsDirectoryRole).toBool()
                ? QStringList{QStringLiteral("folder")}
                : fileTypeIconNames(src.data(FileListModel::FileTypeValueRole).toUInt());
        return themedIcon(names, QStyle::SP_FileIcon);
    } else if (role == Qt::DecorationRole && column == StatusColumn) {
        // A dot: green indexed, amber waiting, grey not indexable.
        static const QColor colours[] = {
            QColor(0x2e, 0xc2, 0x7e), QColor(0xe5, 0xa5, 0x0a), QColor(0x9a, 0x99, 0x96)};
        QPixmap dot(16, 16);
        dot.fill(Qt::transparent);
        QPainter painter(&dot);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(colours[qBound(0, rank, 2)]);
        painter.drawEllipse(QRectF(4, 4, 8, 8));
        return QIcon(dot);
    } else if (role == Qt::UserRole) {
        return src.data(FileListModel::PathRole);
    }
    return QVariant();
}

QVariant FileTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::TextAlignmentRole) {
        return section == SizeColumn || section == ChunksColumn
                   ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                   : QVariant(Qt::AlignLeft | Qt::AlignVCenter);
    }
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return QAbstractTableModel::headerData(section, orientation, role);
    }
    static const char *const titles[] = {"Name", "Folder", "Type", "Size", "Chunks", "Status"};
    return section >= 0 && section < kColumnCount ? tr(titles[section]) : QVariant();
}

// ---- window ----

FileScopeWindow::FileScopeWindow(Settings *settings, QWidget *parent)
    : QWidget(parent, Qt::Window), m_settings(settings)
{
    setObjectName(QStringLiteral("fileScopeWindow"));
    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(tr("File Scope"));
    resize(900, 520);
    setMinimumSize(480, 300);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    auto *header = new QWidget(this);
    auto *headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(14, 12, 14, 10);
    headerLayout->setSpacing(10);
    auto *titles = new QVBoxLayout();
    titles->setSpacing(2);
    m_title = new QLabel(header);
    QFont titleFont = m_title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.2);
    titleFont.setWeight(QFont::DemiBold);
    m_title->setFont(titleFont);
    m_summary = new QLabel(header);
    m_summary->setObjectName(QStringLiteral("fileSummary"));
    m_summary->setForegroundRole(QPalette::PlaceholderText);
    titles->addWidget(m_title);
    titles->addWidget(m_summary);
    headerLayout->addLayout(titles, 1);
    m_filter = new QLineEdit(header);
    m_filter->setObjectName(QStringLiteral("fileFilterField"));
    m_filter->setPlaceholderText(tr("Filter by name or path"));
    m_filter->setClearButtonEnabled(true);
    m_filter->setMinimumWidth(240);
    const QIcon findIcon = themedIcon(QStringLiteral("edit-find"));
    if (!findIcon.isNull()) {
        m_filter->addAction(findIcon, QLineEdit::LeadingPosition);
    }
    headerLayout->addWidget(m_filter, 0, Qt::AlignVCenter);
    layout->addWidget(header);

    m_pages = new QStackedWidget(this);
    auto *scanning = new QLabel(tr("Scanning directory\u2026"), m_pages);
    scanning->setObjectName(QStringLiteral("scanningLabel"));
    scanning->setAlignment(Qt::AlignCenter);
    scanning->setForegroundRole(QPalette::PlaceholderText);
    m_pages->addWidget(scanning);

    m_tableModel = new FileTableModel(this);
    m_table = new QTableView(m_pages);
    m_table->setObjectName(QStringLiteral("fileTable"));
    m_table->setModel(m_tableModel);
    m_table->setShowGrid(false);
    m_table->setAlternatingRowColors(true);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setWordWrap(false);
    m_table->setTextElideMode(Qt::ElideMiddle);
    m_table->verticalHeader()->setVisible(false);
    m_table->verticalHeader()->setDefaultSectionSize(m_table->fontMetrics().height() + 10);
    m_table->setFrameShape(QFrame::NoFrame);
    QHeaderView *columns = m_table->horizontalHeader();
    columns->setSectionsClickable(true);
    columns->setSortIndicatorShown(true);
    columns->setHighlightSections(false);
    columns->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    columns->setSectionResizeMode(QHeaderView::Interactive);
    columns->setSectionResizeMode(FileTableModel::NameColumn, QHeaderView::Stretch);
    columns->resizeSection(FileTableModel::FolderColumn, 150);
    columns->resizeSection(FileTableModel::TypeColumn, 90);
    columns->resizeSection(FileTableModel::SizeColumn, 80);
    columns->resizeSection(FileTableModel::ChunksColumn, 70);
    columns->resizeSection(FileTableModel::StatusColumn, 240);
    connect(columns, &QHeaderView::sectionClicked, this, [this](int section) {
        const std::optional<FileSortKey> key = FileTableModel::sortKeyFor(section);
        if (m_files && key) {
            if (m_files->sortKey() == *key) {
                m_files->setSortAscending(!m_files->sortAscending());
            } else {
                m_files->setSortKey(*key);
                m_files->setSortAscending(true);
            }
        }
        syncSortIndicator(); // also when the column does not sort: keep the indicator put
    });
    connect(m_table, &QAbstractItemView::activated, this, [this](const QModelIndex &index) {
        SearchResult target;
        target.filePath = index.data(Qt::UserRole).toString();
        target.lineNumber = 1;
        if (m_state) {
            openResult(target, *m_settings, m_state);
        }
    });
    m_pages->addWidget(m_table);
    layout->addWidget(m_pages, 1);

    connect(m_filter, &QLineEdit::textChanged, this, [this](const QString &text) {
        if (m_files) {
            m_files->setFilterText(text);
        }
    });

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickFileScope"), settings);
    frame->restore();
}

void FileScopeWindow::setState(DirectoryState *state)
{
    if (state && state == m_state && m_files) {
        return;
    }
    delete m_stateLink;
    m_stateLink = nullptr;
    m_state = state;
    FileListModel *old = m_files;
    m_files = state ? new FileListModel(state, this) : nullptr;
    m_tableModel->setSource(m_files);
    delete old;
    if (state) {
        m_stateLink = new QObject(this);
        connect(state, &DirectoryState::isLoadingFileListChanged, m_stateLink, [this] {
            syncLoading();
        });
        connect(state, &DirectoryState::fileListChanged, m_stateLink, [this] {
            syncSummary();
        });
        connect(state, &QObject::destroyed, m_stateLink, [this] {
            setState(nullptr);
            close();
        });
        connect(m_files, &FileListModel::countChanged, m_stateLink, [this] {
            syncSummary();
        });
        connect(m_files, &FileListModel::sortKeyChanged, m_stateLink, [this] {
            syncSortIndicator();
        });
        connect(m_files, &FileListModel::sortAscendingChanged, m_stateLink, [this] {
            syncSortIndicator();
        });
        m_files->setFilterText(m_filter->text());
        const QString name = QFileInfo(state->directoryPath()).fileName();
        setWindowTitle(tr("Files \u2014 %1").arg(name));
        m_title->setText(name);
    }
    syncLoading();
    syncSummary();
    syncSortIndicator();
}

bool FileScopeWindow::isScanning() const
{
    return m_pages->currentIndex() == 0;
}

void FileScopeWindow::syncLoading()
{
    m_pages->setCurrentIndex(m_state && m_state->isLoadingFileList() ? 0 : 1);
}

void FileScopeWindow::syncSummary()
{
    if (!m_state) {
        m_summary->clear();
        return;
    }
    const QList<FileInfo> files = m_state->fileList();
    int fileCount = 0; // excluded folders are rows too, but not files
    int indexed = 0;
    qint64 bytes = 0;
    for (const FileInfo &file : files) {
        fileCount += file.isDirectory ? 0 : 1;
        indexed += file.isIndexed ? 1 : 0;
        bytes += file.fileSize;
    }
    QString text = (fileCount == 1 ? tr("1 file") : tr("%1 files").arg(fileCount))
                   + tr(", %1 indexed, %2").arg(indexed).arg(formatFileSize(bytes));
    if (m_files && m_files->count() != files.size()) {
        text += tr(" \u00b7 %1 shown").arg(m_files->count());
    }
    m_summary->setText(text);
}

void FileScopeWindow::syncSortIndicator()
{
    if (!m_files) {
        return;
    }
    m_table->horizontalHeader()->setSortIndicator(FileTableModel::columnFor(m_files->sortKey()),
                                                  m_files->sortAscending() ? Qt::AscendingOrder
                                                                           : Qt::DescendingOrder);
}

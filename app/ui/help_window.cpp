/*
** help_window.cpp -- the help browser.
*/
#include "help_window.h"

#include "icons.h"
#include "window_frames.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QListWidget>
#include <QSplitter>
#include <QTextBrowser>
#include <QToolBar>
#include <QVBoxLayout>

static void initHelpResource()
{
    // The pages live in the static view library; naming the resource keeps the linker from
    // dropping it.
    Q_INIT_RESOURCE(help);
}

QList<std::pair<QString, QString>> HelpWindow::pages()
{
    return {{QStringLiteral("index.html"), QObject::tr("Welcome")},
            {QStringLiteral("searching.html"), QObject::tr("Searching")},
            {QStringLiteral("results.html"), QObject::tr("Results, Pins and Prompts")},
            {QStringLiteral("previews.html"), QObject::tr("Previews")},
            {QStringLiteral("indexing.html"), QObject::tr("Indexing and File Scope")},
            {QStringLiteral("training.html"), QObject::tr("Encoder Training")},
            {QStringLiteral("settings.html"), QObject::tr("Settings")},
            {QStringLiteral("shortcuts.html"), QObject::tr("Keyboard Shortcuts")}};
}

QUrl HelpWindow::pageUrl(const QString &page)
{
    return QUrl(QStringLiteral("qrc:/help/") + page);
}

HelpWindow::HelpWindow(Settings *settings, QWidget *parent) : QWidget(parent, Qt::Window)
{
    initHelpResource();
    setObjectName(QStringLiteral("helpWindow"));
    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(tr("Tarnwick Help"));
    resize(860, 620);
    setMinimumSize(520, 360);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    auto *toolbar = new QToolBar(this);
    toolbar->setIconSize(QSize(16, 16));
    toolbar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    layout->addWidget(toolbar);

    auto *splitter = new QSplitter(this);
    m_contents = new QListWidget(splitter);
    m_contents->setObjectName(QStringLiteral("helpContents"));
    m_contents->setFrameShape(QFrame::NoFrame);
    m_contents->setSpacing(2);
    for (const auto &[file, title] : pages()) {
        auto *item = new QListWidgetItem(title, m_contents);
        item->setData(Qt::UserRole, file);
    }
    m_browser = new QTextBrowser(splitter);
    m_browser->setObjectName(QStringLiteral("helpBrowser"));
    m_browser->setOpenLinks(true);
    m_browser->setOpenExternalLinks(true);
    m_browser->setFrameShape(QFrame::NoFrame);
    m_browser->document()->setDocumentMargin(20);
    splitter->addWidget(m_contents);
    splitter->addWidget(m_browser);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({190, 670});
    layout->addWidget(splitter, 1);

    QAction *back =
        toolbar->addAction(themedIcon(QStringLiteral("go-previous"), QStyle::SP_ArrowBack),
                           tr("Back"),
                           m_browser,
                           &QTextBrowser::backward);
    back->setShortcut(QKeySequence::Back);
    back->setObjectName(QStringLiteral("helpBack"));
    QAction *forward =
        toolbar->addAction(themedIcon(QStringLiteral("go-next"), QStyle::SP_ArrowForward),
                           tr("Forward"),
                           m_browser,
                           &QTextBrowser::forward);
    forward->setShortcut(QKeySequence::Forward);
    forward->setObjectName(QStringLiteral("helpForward"));
    QAction *home =
        toolbar->addAction(themedIcon(QStringLiteral("go-home")), tr("Contents"), this, [this] {
            showPage(QStringLiteral("index.html"));
        });
    home->setObjectName(QStringLiteral("helpHome"));
    back->setEnabled(false);
    forward->setEnabled(false);
    connect(m_browser, &QTextBrowser::backwardAvailable, back, &QAction::setEnabled);
    connect(m_browser, &QTextBrowser::forwardAvailable, forward, &QAction::setEnabled);

    connect(m_contents, &QListWidget::currentItemChanged, this, [this](QListWidgetItem *item) {
        if (item && m_browser->source() != pageUrl(item->data(Qt::UserRole).toString())) {
            m_browser->setSource(pageUrl(item->data(Qt::UserRole).toString()));
        }
    });
    connect(m_browser, &QTextBrowser::sourceChanged, this, [this](const QUrl &url) {
        const QString file = url.fileName();
        for (int i = 0; i < m_contents->count(); ++i) {
            if (m_contents->item(i)->data(Qt::UserRole).toString() == file) {
                const QSignalBlocker block(m_contents);
                m_contents->setCurrentRow(i);
            }
        }
        setWindowTitle(tr("Tarnwick Help \u2014 %1").arg(m_browser->documentTitle()));
    });

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickHelpWindow"), settings);
    frame->restore();
    showPage(QStringLiteral("index.html"));
}

void HelpWindow::showPage(const QString &page)
{
    m_browser->setSource(pageUrl(page));
}

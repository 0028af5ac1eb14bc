/*
** tab_strip.cpp -- tabs that mirror AppState's tab list.
*/
#include "tab_strip.h"

#include "app_state.h"
#include "icons.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QToolButton>

TabStrip::TabStrip(AppState *app, QWidget *parent) : QTabBar(parent), m_app(app)
{
    setObjectName(QStringLiteral("tabStrip"));
    setTabsClosable(false); // each tab gets its own close button, which knows its tab
    setDocumentMode(true);
    setExpanding(false);
    setMovable(false); // the model orders the tabs; see mouseMoveEvent
    setElideMode(Qt::ElideRight);
    setUsesScrollButtons(true);
    setFocusPolicy(Qt::TabFocus);

    connect(this, &QTabBar::currentChanged, this, [this](int index) {
        if (!m_syncing && m_app && index >= 0) {
            m_app->selectTab(tabId(index));
        }
    });
    connect(this, &QTabBar::tabCloseRequested, this, [this](int index) {
        if (m_app) {
            m_app->closeTab(tabId(index));
        }
    });
    connect(app, &AppState::tabsChanged, this, &TabStrip::syncFromModel);
    connect(app, &AppState::activeTabIdChanged, this, &TabStrip::syncFromModel);
    syncFromModel();
}

QUuid TabStrip::tabId(int index) const
{
    return QUuid(tabData(index).toString());
}

int TabStrip::indexOf(const QUuid &id) const
{
    for (int i = 0; i < count(); ++i) {
        if (tabId(i) == id) {
            return i;
        }
    }
    return -1;
}

QToolButton *TabStrip::makeCloseButton(const QUuid &id)
{
    auto *button = new QToolButton(this);
    button->setObjectName(QStringLiteral("closeTabButton"));
    button->setAutoRaise(true);
    button->setToolTip(tr("Close Tab (Ctrl+W)"));
    const QIcon icon = themedIcon(
        QStringList{QStringLiteral("window-close-symbolic"), QStringLiteral("window-close")},
        QStyle::SP_TabCloseButton);
    button->setIcon(icon);
    button->setIconSize(QSize(12, 12));
    button->setFixedSize(18, 18);
    button->setFocusPolicy(Qt::NoFocus);
    connect(button, &QToolButton::clicked, this, [this, id] {
        if (m_app) {
            m_app->closeTab(id);
        }
    });
    return button;
}

void TabStrip::syncFromModel()
{
    if (!m_app) {
        return;
    }
    m_syncing = true;
    const QList<DirectoryTab> tabs = m_app->tabs();
    // Drop closed tabs.
    for (int i = count() - 1; i >= 0; --i) {
        const QUuid id = tabId(i);
        const bool open = std::any_of(tabs.begin(), tabs.end(), [&id](const DirectoryTab &tab) {
            return tab.id == id;
        });
        if (!open) {
            removeTab(i);
        }
    }
    // Add new tabs and bring every tab to its place; moving (rather than rebuilding) keeps the
    // tab under a dragging pointer pressed.
    const QIcon folder = themedIcon(QStringLiteral("folder"), QStyle::SP_DirIcon);
    for (int i = 0; i < tabs.size(); ++i) {
        const DirectoryTab &tab = tabs.at(i);
        int at = indexOf(tab.id);
        if (at < 0) {
            at = insertTab(i, folder, tab.name);
            setTabData(at, tab.id.toString());
            setTabButton(at, QTabBar::RightSide, makeCloseButton(tab.id));
        } else if (at != i) {
            moveTab(at, i);
            at = i;
        }
        setTabText(at, tab.name);
        setTabToolTip(at, tab.path);
    }
    const int active = indexOf(m_app->activeTabId());
    if (active >= 0 && active != currentIndex()) {
        setCurrentIndex(active);
    }
    m_syncing = false;
}

void TabStrip::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton) {
        const int index = tabAt(event->position().toPoint());
        m_draggedId = index >= 0 ? tabId(index) : QUuid();
        m_pressPos = event->position().toPoint();
        m_dragging = false;
    } else if (event->button() == Qt::MiddleButton) {
        const int index = tabAt(event->position().toPoint());
        if (index >= 0 && m_app) {
            m_app->closeTab(tabId(index));
            return;
        }
    }
    QTabBar::mousePressEvent(event);
}

void TabStrip::mouseMoveEvent(QMouseEvent *event)
{
    const QPoint pos = event->position().toPoint();
    if (!m_draggedId.isNull() && (event->buttons() & Qt::LeftButton) && m_app) {
        if (!m_dragging
            && (pos - m_pressPos).manhattanLength() >= QApplication::startDragDistance()) {
            m_dragging = true;
        }
        const int target = tabAt(pos);
        const int dragged = indexOf(m_draggedId);
        if (m_dragging && target >= 0 && dragged >= 0 && target != dragged) {
            const QRect r = tabRect(target);
            const bool pastMiddle =
                target > dragged ? pos.x() > r.center().x() : pos.x() < r.center().x();
            if (pastMiddle) {
                m_app->moveTab(m_draggedId, tabId(target));
            }
        }
        event->accept();
        return;
    }
    QTabBar::mouseMoveEvent(event);
}

void TabStrip::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton) {
        m_draggedId = QUuid();
        m_dragging = false;
    }
    QTabBar::mouseReleaseEvent(event);
}

void TabStrip::contextMenuEvent(QContextMenuEvent *event)
{
    const int index = tabAt(event->pos());
    if (index < 0 || !m_app) {
        return;
    }
    const QUuid id = tabId(index);
    QMenu menu(this);
    menu.addAction(themedIcon(QStringLiteral("window-close")), tr("Close Tab"), this, [this, id] {
        if (m_app) {
            m_app->closeTab(id);
        }
    });
    menu.exec(event->globalPos());
}

/*
** tab_strip.h -- the application's own tab bar: one tab per open directory, titled by the
** directory's name, the active one current, closable, and reordered live while a tab is dragged.
**
** Dragging: the tab under the pointer's press is the dragged tab. When the pointer passes the
** middle of another tab, AppState::moveTab(dragged, that tab) is called at once and the strip
** follows the model's new order; the middle rule keeps a narrow tab from swapping back and forth
** with a wide one. Releasing the button ends the drag.
*/
#ifndef TRN_UI_TAB_STRIP_H
#define TRN_UI_TAB_STRIP_H

#include "app_state.h"

#include <QPoint>
#include <QPointer>
#include <QTabBar>
#include <QUuid>

class QToolButton;

class TabStrip : public QTabBar
{
    Q_OBJECT

public:
    TabStrip(AppState *app, QWidget *parent = nullptr);

    QUuid tabId(int index) const;
    int indexOf(const QUuid &id) const;
    // The tab being dragged, or null.
    QUuid draggedTabId() const { return m_draggedId; }

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;

private:
    void syncFromModel();
    QToolButton *makeCloseButton(const QUuid &id);

    QPointer<AppState> m_app;
    bool m_syncing = false;
    QUuid m_draggedId;
    QPoint m_pressPos;
    bool m_dragging = false;
};

#endif

/*
** window_frames.cpp -- saving and restoring window geometry under autosave names, and fitting
** windows to the screen.
*/
#include "window_frames.h"

#include "settings.h"

#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

namespace
{

// Until a window manager has framed a window, assume a title bar of this height.
constexpr int kTypicalTitleBar = 32;

} // namespace

WindowFrame::WindowFrame(QWidget *window, const QString &autosaveName, Settings *settings)
    : QObject(window), m_window(window), m_name(autosaveName), m_settings(settings)
{
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(400);
    connect(&m_saveTimer, &QTimer::timeout, this, &WindowFrame::save);
    window->installEventFilter(this);
}

bool WindowFrame::restore()
{
    const QByteArray bytes = m_settings->value(m_name).toByteArray();
    if (bytes.isEmpty() || !m_window) {
        return false;
    }
    const QRect before = m_window->geometry();
    if (!m_window->restoreGeometry(bytes)) {
        return false;
    }
    // The frame as it will be drawn must lie within one screen's available area.
    const QRect frame = m_window->geometry() + frameMargins(m_window, nullptr);
    QScreen *screen = QGuiApplication::screenAt(frame.center());
    if (!screen || !screen->availableGeometry().contains(frame)) {
        m_window->setGeometry(before);
        return false;
    }
    m_restored = true;
    return true;
}

void WindowFrame::save()
{
    if (m_window) {
        m_settings->setValue(m_name, m_window->saveGeometry());
    }
}

bool WindowFrame::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window) {
        switch (event->type()) {
        case QEvent::Move:
        case QEvent::Resize:
            if (m_window->isVisible()) {
                m_saveTimer.start();
            }
            break;
        case QEvent::Hide:
        case QEvent::Close:
            m_saveTimer.stop();
            save();
            break;
        default:
            break;
        }
    }
    return QObject::eventFilter(watched, event);
}

QRect clampToArea(const QRect &frame, const QRect &available)
{
    if (!available.isValid()) {
        return frame;
    }
    QRect r(
        frame.topLeft(),
        QSize(qMin(frame.width(), available.width()), qMin(frame.height(), available.height())));
    if (r.right() > available.right()) {
        r.moveRight(available.right());
    }
    if (r.bottom() > available.bottom()) {
        r.moveBottom(available.bottom());
    }
    if (r.left() < available.left()) {
        r.moveLeft(available.left());
    }
    if (r.top() < available.top()) {
        r.moveTop(available.top());
    }
    return r;
}

QMargins frameMargins(const QWidget *window, const QWidget *anchor)
{
    for (const QWidget *w : {window, anchor}) {
        if (w && w->isVisible()) {
            const QRect frame = w->frameGeometry();
            const QRect inner = w->geometry();
            const QMargins m(inner.left() - frame.left(),
                             inner.top() - frame.top(),
                             frame.right() - inner.right(),
                             frame.bottom() - inner.bottom());
            if (!m.isNull() || w == window) {
                return m;
            }
        }
    }
    return QMargins(0, kTypicalTitleBar, 0, 0);
}

QRect availableArea(const QWidget *window, const QWidget *anchor)
{
    const QWidget *holder = anchor ? anchor : window;
    QScreen *screen = holder ? holder->screen() : nullptr;
    if (holder && holder->isVisible()) {
        if (QScreen *at = QGuiApplication::screenAt(holder->frameGeometry().center())) {
            screen = at;
        }
    }
    if (!screen) {
        screen = QGuiApplication::primaryScreen();
    }
    return screen ? screen->availableGeometry() : QRect();
}

void fitOnScreen(QWidget *window, const QWidget *anchor)
{
    if (!window) {
        return;
    }
    const QRect available = availableArea(window, anchor);
    if (!available.isValid()) {
        return;
    }
    const QMargins margins = frameMargins(window, anchor);
    const QRect frame = window->geometry() + margins;
    QRect fitted = clampToArea(frame, available);
    // A minimum size larger than the screen would push the frame out again.
    const QSize least = window->minimumSize();
    const QSize inner(qMax(fitted.width() - margins.left() - margins.right(), 1),
                      qMax(fitted.height() - margins.top() - margins.bottom(), 1));
    if (inner.width() < least.width() || inner.height() < least.height()) {
        window->setMinimumSize(qMin(least.width(), inner.width()),
                               qMin(least.height(), inner.height()));
    }
    if (fitted != frame) {
        window->resize(inner);
        window->move(fitted.topLeft());
    }
}

void showOnScreen(QWidget *window, QWidget *anchor)
{
    if (!window) {
        return;
    }
    if (!window->property("trnPlaced").toBool()) {
        window->setProperty("trnPlaced", true);
        const WindowFrame *frame =
            window->findChild<WindowFrame *>(QString(), Qt::FindDirectChildrenOnly);
        if (anchor && !(frame && frame->wasRestored())) {
            const QMargins margins = frameMargins(window, anchor);
            QRect outer = window->geometry() + margins;
            outer.moveCenter(anchor->frameGeometry().center());
            window->move(outer.topLeft());
        }
    }
    fitOnScreen(window, anchor);
    window->show();
    window->raise();
    window->activateWindow();
    fitOnceShown(window, anchor);
}

void fitOnceShown(QWidget *window, QWidget *anchor)
{
    // Once shown the size is final, and once the window manager has drawn the frame its real
    // margins are known.
    QPointer<QWidget> guard(window);
    QPointer<QWidget> anchorGuard(anchor);
    for (int delay : {0, 150}) {
        QTimer::singleShot(delay, window, [guard, anchorGuard] {
            if (guard && guard->isVisible()) {
                fitOnScreen(guard, anchorGuard);
            }
        });
    }
}

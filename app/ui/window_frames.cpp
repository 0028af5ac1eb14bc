/*
** window_frames.cpp -- saving and restoring window geometry under autosave names.
*/
#include "window_frames.h"

#include "settings.h"

#include <QEvent>
#include <QWidget>

WindowFrame::WindowFrame(QWidget *window, const QString &autosaveName)
    : QObject(window), m_window(window), m_name(autosaveName)
{
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(400);
    connect(&m_saveTimer, &QTimer::timeout, this, &WindowFrame::save);
    window->installEventFilter(this);
}

bool WindowFrame::restore()
{
    const QByteArray bytes = Settings::standard()->value(m_name).toByteArray();
    if (bytes.isEmpty() || !m_window) {
        return false;
    }
    return m_window->restoreGeometry(bytes);
}

void WindowFrame::save()
{
    if (m_window) {
        Settings::standard()->setValue(m_name, m_window->saveGeometry());
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

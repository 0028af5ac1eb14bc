/*
** ui_test_support.h -- what the view tests share beyond test_support.h: the application's objects
** as main() makes them, and text and mouse helpers.
*/
#ifndef TRN_UI_TEST_SUPPORT_H
#define TRN_UI_TEST_SUPPORT_H

#include "app_state.h"
#include "directory_state.h"
#include "icons.h"
#include "main_window.h"
#include "system_clipboard.h"
#include "test_support.h"
#include "training_manager.h"

#include <QMouseEvent>
#include <QString>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtTest>

#include <memory>

// The application's objects as main() makes them over settings: the clipboard, the training
// manager, the model and the main window.
struct AppWindow {
    explicit AppWindow(Settings *settings)
        : training(settings), app(settings, &training), window(&app, &training)
    {
        app.setClipboard(&clipboard);
    }
    SystemClipboard clipboard;
    TrainingManager training;
    AppState app;
    MainWindow window;
};

// A temporary folder for a test's tabs. A tab's indexing goes on in the background after its
// window is gone; the folder waits for every such job to end before it is removed, so that no
// late write lands in it while it goes and keeps it (with an index) in the temporary directory.
class TabFolder : public QTemporaryDir
{
public:
    ~TabFolder() { QThreadPool::globalInstance()->waitForDone(); }
};

// A shown AppWindow over settings with no tabs saved by an earlier test, once its saved state is
// restored.
inline std::unique_ptr<AppWindow> openAppWindow(Settings *settings)
{
    settings->remove(QStringLiteral("savedTabPaths"));
    settings->remove(QStringLiteral("activeTabPath"));
    auto w = std::make_unique<AppWindow>(settings);
    QSignalSpy restored(&w->app, &AppState::stateRestored);
    w->window.show();
    if (restored.isEmpty()) {
        restored.wait(2000);
    }
    return w;
}

// "line 1\nline 2\n...line n" (no newline after the last line).
inline QByteArray numberedLines(int n, const QByteArray &word = "line")
{
    QByteArray text;
    for (int i = 1; i <= n; ++i) {
        text += word + ' ' + QByteArray::number(i);
        if (i < n) {
            text += '\n';
        }
    }
    return text;
}

// A plain mouse event sent straight to a widget (QTest's helpers do not carry held buttons
// through moves on every platform plugin).
inline void sendMouse(QWidget *widget, QEvent::Type type, const QPoint &pos,
                      Qt::MouseButton button = Qt::LeftButton,
                      Qt::MouseButtons buttons = Qt::LeftButton)
{
    QMouseEvent event(
        type, QPointF(pos), widget->mapToGlobal(QPointF(pos)), button, buttons, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

#endif

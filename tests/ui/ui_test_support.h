/*
** ui_test_support.h -- what the view tests share: a home directory and settings of their own,
** the application's objects as main() makes them, and file and mouse helpers.
*/
#ifndef TRN_UI_TEST_SUPPORT_H
#define TRN_UI_TEST_SUPPORT_H

#include "app_state.h"
#include "directory_state.h"
#include "icons.h"
#include "main_window.h"
#include "settings.h"
#include "training_manager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMouseEvent>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// Points HOME and the process-wide settings at a fresh temporary directory. Create it in
// initTestCase(), before anything reads the settings.
class IsolatedHome
{
public:
    IsolatedHome()
    {
        qputenv("HOME", QFile::encodeName(m_home.path()));
        Settings::setStandard(new Settings(new QSettings(settingsPath(), QSettings::IniFormat)));
        installIconThemeFallback();
        m_training = std::make_unique<TrainingManager>();
    }
    bool isValid() const { return m_home.isValid(); }
    QString path() const { return m_home.path(); }
    QString settingsPath() const { return m_home.filePath(QStringLiteral("settings.ini")); }
    Settings *settings() const { return Settings::standard(); }
    // A training manager over these settings, for windows made on their own.
    TrainingManager *training() const { return m_training.get(); }

private:
    QTemporaryDir m_home;
    std::unique_ptr<TrainingManager> m_training;
};

// The application's objects as main() makes them: the training manager, the model and the main
// window.
struct AppWindow {
    TrainingManager training;
    AppState app{nullptr, &training};
    MainWindow window{&app, &training};
};

// A shown AppWindow with no tabs saved by an earlier test, once its saved state is restored.
inline std::unique_ptr<AppWindow> openAppWindow()
{
    Settings::standard()->remove(QStringLiteral("savedTabPaths"));
    Settings::standard()->remove(QStringLiteral("activeTabPath"));
    auto w = std::make_unique<AppWindow>();
    QSignalSpy restored(&w->app, &AppState::stateRestored);
    w->window.show();
    if (restored.isEmpty()) {
        restored.wait(2000);
    }
    return w;
}

// Writes bytes to dir/relative, creating folders on the way; false when it cannot.
inline bool writeFile(const QString &dir, const QString &relative, const QByteArray &bytes)
{
    const QString path = dir + QLatin1Char('/') + relative;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
           && file.write(bytes) == bytes.size();
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

/*
** ui_test_support.h -- what the view tests share: a home directory and settings of their own,
** file helpers, and waiting for a tab's background work.
*/
#ifndef TRN_UI_TEST_SUPPORT_H
#define TRN_UI_TEST_SUPPORT_H

#include "app_state.h"
#include "directory_state.h"
#include "icons.h"
#include "settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMouseEvent>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>

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
    }
    bool isValid() const { return m_home.isValid(); }
    QString path() const { return m_home.path(); }
    QString settingsPath() const { return m_home.filePath(QStringLiteral("settings.ini")); }
    Settings *settings() const { return Settings::standard(); }

private:
    QTemporaryDir m_home;
};

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

/*
** test_support.h -- what the model tests share: settings and a home directory of their own,
** and small file helpers.
*/
#ifndef TRN_TEST_SUPPORT_H
#define TRN_TEST_SUPPORT_H

#include "settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>

// Points HOME and the process-wide settings at a fresh temporary directory. Call from
// initTestCase(), before anything reads the settings.
class IsolatedEnvironment
{
public:
    IsolatedEnvironment()
    {
        QVERIFY2(m_home.isValid(), "no temporary directory");
        qputenv("HOME", QFile::encodeName(m_home.path()));
        Settings::setStandard(new Settings(
            new QSettings(m_home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat)));
    }
    QString home() const { return m_home.path(); }
    Settings *settings() const { return Settings::standard(); }

private:
    QTemporaryDir m_home;
};

// Writes bytes to dir/relative, creating folders on the way.
inline void writeFile(const QString &dir, const QString &relative, const QByteArray &bytes)
{
    const QString path = dir + QLatin1Char('/') + relative;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(bytes), bytes.size());
}

#endif

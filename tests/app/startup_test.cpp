/*
** What the programs look up when they start: support files in the build tree and in installed
** layouts, and the directories that the application's arguments name.
*/
#include "command_line.h"
#include "support_files.h"
#include "test_support.h"

#include <QDir>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void supportFileIsFoundInEachLayout_data();
    void supportFileIsFoundInEachLayout();
    void argumentsNameDirectories();
};

// Each row lays out files under a fresh prefix (the program lives in prefix/bin) and names the
// file expected for "trainer", relative to the prefix, or "" for none.
void TestStartup::supportFileIsFoundInEachLayout_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("expected");
    QTest::newRow("build tree: beside the program")
        << QStringList{"bin/trainer"} << QStringLiteral("bin/trainer");
    QTest::newRow("installed: libexec")
        << QStringList{"libexec/tarnwick/trainer"} << QStringLiteral("libexec/tarnwick/trainer");
    QTest::newRow("installed: data")
        << QStringList{"share/tarnwick/trainer"} << QStringLiteral("share/tarnwick/trainer");
    QTest::newRow("beside the program wins over libexec")
        << QStringList{"bin/trainer", "libexec/tarnwick/trainer"} << QStringLiteral("bin/trainer");
    QTest::newRow("libexec wins over data")
        << QStringList{"share/tarnwick/trainer", "libexec/tarnwick/trainer"}
        << QStringLiteral("libexec/tarnwick/trainer");
    QTest::newRow("a directory of that name is not the file")
        << QStringList{"bin/trainer/inside"} << QString();
    QTest::newRow("elsewhere under the prefix is not searched")
        << QStringList{"libexec/trainer", "lib/tarnwick/trainer"} << QString();
}

void TestStartup::supportFileIsFoundInEachLayout()
{
    QFETCH(QStringList, files);
    QFETCH(QString, expected);
    QTemporaryDir prefix;
    QVERIFY(prefix.isValid());
    QDir().mkpath(prefix.filePath(QStringLiteral("bin")));
    for (const QString &file : files) {
        QVERIFY(writeFile(prefix.path(), file, {}));
    }
    const QString found = supportFilePath(QStringLiteral("trainer"), prefix.filePath("bin"));
    QCOMPARE(found, expected.isEmpty() ? QString() : prefix.filePath(expected));
}

void TestStartup::argumentsNameDirectories()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString notes = root.filePath(QStringLiteral("notes"));
    const QString src = root.filePath(QStringLiteral("src"));
    QVERIFY(writeFile(notes, QStringLiteral("todo.txt"), {}));
    QVERIFY(writeFile(src, QStringLiteral("has space/main.c"), {}));
    QDir::setCurrent(root.path());

    const LaunchTargets targets =
        launchTargets({QStringLiteral("notes"),                            // relative directory
                       notes + QStringLiteral("/todo.txt"),                // a file: its folder
                       QUrl::fromLocalFile(src + "/has space").toString(), // a file: URL
                       src + QStringLiteral("/has space/main.c"),
                       root.filePath(QStringLiteral("missing")),
                       QString(),
                       src + QStringLiteral("/../notes/")});
    QCOMPARE(targets.directories, (QStringList{notes, src + QStringLiteral("/has space")}));
    QCOMPARE(targets.unusable, (QStringList{root.filePath(QStringLiteral("missing")), QString()}));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "startup_test.moc"

/*
** When a tab hears that its directory changed: once per burst of changes, after they settle, and
** still from the system's events (not the slow comparison) once the first change was read.
*/
#include "directory_watcher.h"
#include "test_support.h"

#include <QSignalSpy>

class TestDirectoryWatcher : public QObject
{
    Q_OBJECT

private slots:
    void aBurstOfChangesSettlesOnceAndLaterChangesAreHeardAtOnce();
    void excludedFoldersAndMissingDirectoriesSayNothing();
};

void TestDirectoryWatcher::aBurstOfChangesSettlesOnceAndLaterChangesAreHeardAtOnce()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    FileWalkOptions walk({}, {}, 1 << 20);
    DirectoryWatcher watcher(dir.path(), 300, walk);
    QVERIFY(watcher.isWatching());
    QVERIFY(!watcher.isPolling());
    QSignalSpy settled(&watcher, &DirectoryWatcher::settled);

    for (int i = 0; i < 5; i++) {
        QVERIFY(writeFile(dir.path(), QStringLiteral("n%1.txt").arg(i), "note\n"));
        QTest::qWait(50);
    }
    QVERIFY(settled.wait(3000));
    QTest::qWait(500);
    QCOMPARE(settled.count(), 1);
    QVERIFY(!watcher.isPolling());

    // Well inside the comparison's interval: only the events can tell it this soon.
    QVERIFY(writeFile(dir.path(), QStringLiteral("sub/later.txt"), "later\n"));
    QVERIFY(settled.wait(DirectoryWatcher::kPollMs / 2));
    QCOMPARE(settled.count(), 2);
}

void TestDirectoryWatcher::excludedFoldersAndMissingDirectoriesSayNothing()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("build")));
    FileWalkOptions walk({}, {QStringLiteral("build")}, 1 << 20);
    DirectoryWatcher watcher(dir.path(), 100, walk);
    QSignalSpy settled(&watcher, &DirectoryWatcher::settled);
    QVERIFY(writeFile(dir.path(), QStringLiteral("build/out.txt"), "object\n"));
    QVERIFY(!settled.wait(800));

    DirectoryWatcher missing(dir.filePath(QStringLiteral("gone")), 100, walk);
    QVERIFY(!missing.isWatching());
    QVERIFY(!missing.isPolling());
}

QTEST_GUILESS_MAIN(TestDirectoryWatcher)
#include "directory_watcher_test.moc"

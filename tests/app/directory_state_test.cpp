/*
** One tab's model while it indexes and searches: empty and invalid queries, paging, the status
** text, resumed and paused indexing, a busy index, late answers and the results model.
*/
#include "directory_state_fixture.h"

#include "background.h"
#include "encoder_record.h"
#include "results_model.h"

#include <QAbstractItemModelTester>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>

#include <atomic>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

class TestDirectoryState : public DirectoryStateFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUpCase(); }
    void init() { QVERIFY(setUp()); }
    void cleanup() { tearDown(); }
    void emptyQueryClearsResultsAndRecordsNothing();
    void invalidRegexSaysWhyAndRunsNothing();
    void pagingGrowsByTenUntilSixtyFour();
    void statusTextReportsCountsAfterIndexing();
    void anUpdateThatAddsNothingRefreshesTheResultsAndKeepsTheCounts();
    void indexOfAnotherEncoderIsRebuiltWhenOpened();
    void unfinishedIndexingGoesOnWhenTheTabOpensAgain();
    void pausedIndexingSaysSoAndFinishesOnceResumed();
    void closedTabDropsLateResults();
    void olderAnswerNeverShowsOverANewerSearch_data();
    void olderAnswerNeverShowsOverANewerSearch();
    void busyIndexIsShownAndOpenedOnceFree();
    void aBusyIndexFoundRefusedIsNotTriedAgain();
    void resultsModelFollowsDisplayResults();
};

void TestDirectoryState::emptyQueryClearsResultsAndRecordsNothing()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "the quick brown fox jumps\n"));
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(indexed(state));
    QVERIFY(searched(state, QStringLiteral("fox"), SearchMode::Text));
    QCOMPARE(state->results().size(), 1);
    QCOMPARE(state->searchHistory().size(), 1);

    QSignalSpy results(state, &DirectoryState::resultsChanged);
    state->search(QString(), SearchMode::Text);
    QCOMPARE(results.count(), 1);
    QVERIFY(state->results().isEmpty());
    QVERIFY(!state->hasMoreResults());
    QCOMPARE(state->searchHistory().size(), 1);
    QCOMPARE(state->lastQuery(), QStringLiteral("fox"));
}

void TestDirectoryState::invalidRegexSaysWhyAndRunsNothing()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.py"), "def read_lines(path):\n    pass\n"));
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(indexed(state));
    QVERIFY(searched(state, QStringLiteral("def [a-z]+"), SearchMode::Regex));
    QCOMPARE(state->results().size(), 1);
    QCOMPARE(state->queryError(), QString());

    QSignalSpy error(state, &DirectoryState::queryErrorChanged);
    state->search(QStringLiteral("def [a-z"), SearchMode::Regex);
    QVERIFY(!state->isSearching()); // refused before any engine search
    QVERIFY(state->results().isEmpty());
    QCOMPARE(error.count(), 1);
    QVERIFY2(state->queryError().startsWith(QStringLiteral("Invalid regular expression: ")),
             qPrintable(state->queryError()));
    QVERIFY(state->queryError().size() > QStringLiteral("Invalid regular expression: ").size());
    QCOMPARE(state->searchHistory().size(), 1);

    // The same text is fine as plain text, and the message goes away.
    state->search(QStringLiteral("def [a-z"), SearchMode::Text);
    QCOMPARE(state->queryError(), QString());
    QVERIFY(waitForSearch(state));
    QVERIFY(state->results().isEmpty());
}

void TestDirectoryState::pagingGrowsByTenUntilSixtyFour()
{
    // 4000 bytes in windows of 50 every 40 bytes: about a hundred chunks, each holding "alpha".
    QByteArray text;
    while (text.size() < 4000) {
        text += "alpha ";
    }
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("many.txt"), text));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("rare.txt"), "one rare omega word\n"));
    DirectoryState *state = openState(m_dir->path());
    state->ingest(50, 10);
    QVERIFY(waitForIngest(state));
    QVERIFY(state->engine()->stats().chunk_count > 70);
    // Pages of passages: laid out by file, all of them are one file's.
    m_env->settings()->setAllPassages(true);
    const auto byFileAgain = qScopeGuard([this] {
        m_env->settings()->setAllPassages(false);
    });

    QVERIFY(searched(state, QStringLiteral("alpha"), SearchMode::Text));
    QCOMPARE(state->searchLimit(), 10);
    QCOMPARE(state->results().size(), 10);
    QVERIFY(state->hasMoreResults());

    for (int k = 20; k <= 60; k += 10) {
        state->loadMore();
        QVERIFY(state->isLoadingMore());
        state->loadMore(); // ignored while a page loads
        QCOMPARE(state->searchLimit(), k);
        QVERIFY(waitForSearch(state));
        QVERIFY(!state->isLoadingMore());
        QCOMPARE(state->results().size(), k);
        QVERIFY2(state->hasMoreResults(), qPrintable(QString::number(k)));
    }
    state->loadMore();
    QCOMPARE(state->searchLimit(), 70);
    QVERIFY(waitForSearch(state));
    QCOMPARE(state->results().size(), 64); // the engine's cap
    QVERIFY(!state->hasMoreResults());
    state->loadMore();
    QCOMPARE(state->searchLimit(), 70);
    QVERIFY(!state->isLoadingMore());
    QCOMPARE(state->searchHistory().size(), 1);

    // A new search starts again at 10.
    state->search(QStringLiteral("alpha"), SearchMode::Text);
    QCOMPARE(state->searchLimit(), 10);
    QVERIFY(waitForSearch(state));
    QCOMPARE(state->results().size(), 10);
    // An answer shorter than the first page ends paging at once.
    QVERIFY(searched(state, QStringLiteral("omega"), SearchMode::Text));
    QCOMPARE(state->results().size(), 1);
    QVERIFY(!state->hasMoreResults());
}

void TestDirectoryState::indexOfAnotherEncoderIsRebuiltWhenOpened()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "rivers run to the sea\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.md"), "# bread\nyeast makes dough rise\n"));
    QTemporaryDir weightsDir;
    const QString other = weightsDir.filePath(QStringLiteral("other.tten"));
    TrnEncoder *encoder = trn_encoder_init(7); // not the engine's seed-42 encoder
    const int saved = trn_encoder_save_weights(encoder, QFile::encodeName(other).constData());
    trn_encoder_free(encoder);
    QCOMPARE(saved, 1);
    const QString record = EncoderRecord::path(m_dir->path());
    auto reopen = [this](const QString &weights) {
        closeStates();
        QThreadPool::globalInstance()->waitForDone();
        return openState(m_dir->path(), weights);
    };

    DirectoryState *first = openState(m_dir->path());
    QVERIFY(indexed(first));
    QVERIFY(EncoderRecord::matches(m_dir->path(), QString()));

    // the encoder that built it: the index is used as it is
    DirectoryState *same = reopen(QString());
    QVERIFY(!same->isIngesting());
    QCOMPARE(same->statusText(), QStringLiteral("2 chunks from 2 files"));

    // another encoder: rebuilt at once, then recorded
    DirectoryState *changed = reopen(other);
    QVERIFY(changed->isIngesting());
    QVERIFY(waitForIngest(changed));
    QCOMPARE(changed->statusText(), QStringLiteral("2 chunks from 2 files"));
    QVERIFY(EncoderRecord::matches(m_dir->path(), other));
    QVERIFY(!EncoderRecord::matches(m_dir->path(), QString()));
    QVERIFY(!reopen(other)->isIngesting());

    // a record of the same weights from before vectors weighed repeated words less: rebuilt
    QFile file(record);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray line = file.readAll().trimmed();
    file.close();
    QVERIFY(line.startsWith("sha1 "));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(line.left(45) + '\n'); // "sha1 " and the digest alone
    file.close();
    DirectoryState *older = reopen(other);
    QVERIFY(older->isIngesting());
    QVERIFY(waitForIngest(older));
    QVERIFY(EncoderRecord::matches(m_dir->path(), other));

    // an index without a record (built before encoders were recorded) is rebuilt as well
    QVERIFY(QFile::remove(record));
    DirectoryState *unrecorded = reopen(other);
    QVERIFY(unrecorded->isIngesting());
    QVERIFY(waitForIngest(unrecorded));
    QVERIFY(QFileInfo::exists(record));
}

void TestDirectoryState::unfinishedIndexingGoesOnWhenTheTabOpensAgain()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), QByteArray(250, 'a')));
    DirectoryState *first = openState(m_dir->path());
    first->update(); // the chunking of the settings, which the resumed update uses too
    QVERIFY(waitForIngest(first));
    QVERIFY(!m_env->settings()->isIndexingUnfinished(m_dir->path()));
    closeStates();
    QThreadPool::globalInstance()->waitForDone();

    // What a process killed after its first file leaves: that file's chunks, the encoder
    // recorded, the indexing marked unfinished, and files not read yet.
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.md"), "# heading\nsome text\n"));
    m_env->settings()->setIndexingUnfinished(m_dir->path(), true);
    DirectoryState *resumed = openState(m_dir->path());
    QVERIFY(resumed->isIngesting());
    QVERIFY(waitForIngest(resumed));
    QCOMPARE(resumed->statusText(), QStringLiteral("2 chunks from 2 files"));
    QVERIFY(!m_env->settings()->isIndexingUnfinished(m_dir->path()));
    closeStates();
    QThreadPool::globalInstance()->waitForDone();

    // Finished: the next opening leaves the index alone.
    QVERIFY(!openState(m_dir->path())->isIngesting());
}

void TestDirectoryState::pausedIndexingSaysSoAndFinishesOnceResumed()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), QByteArray(250, 'a')));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.md"), "# heading\nsome text\n"));
    DirectoryState *state = openState(m_dir->path());
    QSignalSpy paused(state, &DirectoryState::isIndexingPausedChanged);
    state->setIndexingPaused(true);
    state->ingest(800, 200);
    // It waits once the walk found the files, before reading the first.
    QTRY_COMPARE(state->statusText(), QStringLiteral("Paused: Indexing 0 of 2 files, 0 chunks"));
    QVERIFY(state->isIngesting());
    state->setIndexingPaused(false);
    QCOMPARE(paused.count(), 2);
    QVERIFY(waitForIngest(state));
    QCOMPARE(state->statusText(), QStringLiteral("2 chunks from 2 files"));
}

void TestDirectoryState::statusTextReportsCountsAfterIndexing()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), QByteArray(250, 'a')));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.md"), "# heading\nsome text\n"));
    DirectoryState *fresh = openState(m_dir->path());
    QCOMPARE(fresh->statusText(), QStringLiteral("Not indexed"));
    QVERIFY(!fresh->isIndexed());

    QSignalSpy found(fresh, &DirectoryState::ingestFilesFoundChanged);
    QSignalSpy done(fresh, &DirectoryState::ingestFilesDoneChanged);
    const QString rateKey = QStringLiteral("indexingChunksPerSecond");
    m_env->settings()->remove(rateKey);
    QElapsedTimer clock;
    clock.start();
    fresh->ingest(100, 20);
    QVERIFY(waitForIngest(fresh));
    // Too short a run to measure a speed by: the re-index estimate stays unknown.
    if (clock.elapsed() < 2000) {
        QCOMPARE(fresh->reindexEstimateSeconds(), -1.0);
    }
    QVERIFY(!fresh->isIngesting());
    QCOMPARE(fresh->ingestFilesFound(), 2);
    QCOMPARE(fresh->ingestFilesDone(), 2);
    QCOMPARE(found.count(), 1);
    // Files are read without embedding between them, so reports may arrive merged.
    QVERIFY(done.count() >= 1 && done.count() <= 2);
    QCOMPARE(fresh->statusText(), QStringLiteral("4 chunks from 2 files"));
    m_env->settings()->setValue(rateKey, 2.0);
    QCOMPARE(fresh->reindexEstimateSeconds(), 2.0);
    m_env->settings()->setValue(rateKey, 0.0);
    QCOMPARE(fresh->reindexEstimateSeconds(), -1.0);

    // The next tab on the same directory opens the checkpointed index.
    closeStates();
    DirectoryState *reopened = openState(m_dir->path());
    QCOMPARE(reopened->statusText(), QStringLiteral("4 chunks from 2 files"));
    QVERIFY(reopened->isIndexed());

    reopened->loadFileList();
    QVERIFY(reopened->isLoadingFileList());
    QTRY_VERIFY(!reopened->isLoadingFileList());
    QCOMPARE(reopened->fileList().size(), 2);
    QCOMPARE(reopened->fileList().at(0).chunkCount, 3);

    // A directory that has gone away fails to index.
    QTemporaryDir gone;
    const QString path = gone.path();
    DirectoryState *missing = openState(path);
    QVERIFY(gone.remove());
    missing->ingest(800, 200);
    QVERIFY(waitForIngest(missing));
    QCOMPARE(missing->statusText(), QStringLiteral("Indexing failed"));
}

void TestDirectoryState::anUpdateThatAddsNothingRefreshesTheResultsAndKeepsTheCounts()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "the quick brown fox jumps\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "a lazy dog sleeps\n"));
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(indexed(state));
    QVERIFY(searched(state, QStringLiteral("fox"), SearchMode::Text));
    QCOMPARE(state->results().size(), 1);

    // Only a removal: nothing is added, yet the fox must leave the results.
    QVERIFY(QFile::remove(m_dir->filePath(QStringLiteral("a.txt"))));
    QSignalSpy searched(state, &DirectoryState::searchFinished);
    state->update();
    QVERIFY(waitForIngest(state));
    QTRY_COMPARE(searched.count(), 1);
    QVERIFY(state->results().isEmpty());
    const QString counts = state->statusText();
    QVERIFY2(counts.startsWith(QStringLiteral("1 chunk")), qPrintable(counts));
    QVERIFY(!m_env->settings()->isIndexingUnfinished(m_dir->path()));

    state->update(); // nothing changed at all
    QVERIFY(waitForIngest(state));
    QCOMPARE(state->statusText(), counts);
    QVERIFY(!m_env->settings()->isIndexingUnfinished(m_dir->path()));
}

void TestDirectoryState::busyIndexIsShownAndOpenedOnceFree()
{
    // Another Tarnwick updating the index holds its lock for longer than a writer waits.
    QVERIFY(QDir().mkpath(m_dir->path() + QStringLiteral("/.tarnwick")));
    const QByteArray lockPath =
        QFile::encodeName(m_dir->path() + QStringLiteral("/.tarnwick/tarnwick.lock"));
    const int lock = ::open(lockPath.constData(), O_RDWR | O_CREAT, 0600);
    QVERIFY(lock >= 0);
    QCOMPARE(::flock(lock, LOCK_EX), 0);
    DirectoryState *state = openState(m_dir->path());
    QCOMPARE(state->statusText(),
             QStringLiteral("The index of ") + m_dir->path()
                 + QStringLiteral(" is busy: another Tarnwick is updating it"));
    QVERIFY(!state->engine()->isOpen());
    ::close(lock);
    QTRY_COMPARE_WITH_TIMEOUT(
        state->statusText(), QStringLiteral("Not indexed"), 3 * DirectoryState::kBusyRetryMs);
    QVERIFY(state->engine()->isOpen());
}

void TestDirectoryState::aBusyIndexFoundRefusedIsNotTriedAgain()
{
    const QString index = m_dir->path() + QStringLiteral("/.tarnwick");
    QVERIFY(QDir().mkpath(index));
    const int lock = ::open(QFile::encodeName(index + QStringLiteral("/tarnwick.lock")).constData(),
                            O_RDWR | O_CREAT,
                            0600);
    QVERIFY(lock >= 0);
    QCOMPARE(::flock(lock, LOCK_EX), 0);
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(
        state->statusText().endsWith(QStringLiteral(" is busy: another Tarnwick is updating it")));

    // Once free, the index folder is a link: refused, which waiting does not mend.
    const QString real = m_dir->path() + QStringLiteral("/real-index");
    QVERIFY(QDir().rename(index, real));
    QVERIFY(QFile::link(real, index));
    ::close(lock);
    QTRY_VERIFY_WITH_TIMEOUT(state->statusText().contains(QStringLiteral("symbolic link")),
                             3 * DirectoryState::kBusyRetryMs);
    const QString refused = state->statusText();
    QVERIFY(QFile::remove(index));
    QVERIFY(QDir().rename(real, index));
    QTest::qWait(2 * DirectoryState::kBusyRetryMs + 500);
    QCOMPARE(state->statusText(), refused);
    QVERIFY(!state->engine()->isOpen());
}

void TestDirectoryState::closedTabDropsLateResults()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "closing while searching\n"));
    DirectoryState *state = openState(m_dir->path());
    std::weak_ptr<IndexHandle> engine = state->engine();
    state->ingest(800, 200);
    state->search(QStringLiteral("closing"), SearchMode::Text);
    m_states.removeOne(state);
    delete state;
    // The background work still holds the engine, finishes, and publishes nowhere.
    QTRY_VERIFY_WITH_TIMEOUT(engine.expired(), 20000);

    // A job's result reaches its receiver only while the receiver lives.
    std::atomic<bool> release{false};
    bool lateResultRan = false;
    int kept = 0;
    auto *closed = new QObject;
    QObject open;
    runInBackground(
        closed,
        [&release] {
            while (!release) {
                QThread::msleep(1);
            }
            return 1;
        },
        [&lateResultRan](int) {
            lateResultRan = true;
        });
    runInBackground(
        &open,
        [] {
            return 7;
        },
        [&kept](int value) {
            kept = value;
        });
    delete closed;
    release = true;
    QTRY_COMPARE(kept, 7);
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    QVERIFY(!lateResultRan);
}

void TestDirectoryState::olderAnswerNeverShowsOverANewerSearch_data()
{
    QTest::addColumn<QString>("newer"); // the query started right after "alpha"
    QTest::addColumn<bool>("regex");
    QTest::addColumn<QString>("shownFile"); // the only file the results may ever name

    QTest::newRow("another query") << "beta" << false << "b.txt";
    QTest::newRow("cleared query") << "" << false << "";
    QTest::newRow("refused regex") << "(beta" << true << "";
}

void TestDirectoryState::olderAnswerNeverShowsOverANewerSearch()
{
    QFETCH(QString, newer);
    QFETCH(bool, regex);
    QFETCH(QString, shownFile);
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "alpha is the first letter\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "beta is the second letter\n"));
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(indexed(state));

    QSignalSpy results(state, &DirectoryState::resultsChanged);
    state->search(QStringLiteral("alpha"), SearchMode::Text);
    // The answer to "alpha" reaches the main thread only from the event loop, so it always
    // arrives after the newer request below was made.
    state->search(newer, regex ? SearchMode::Regex : SearchMode::Text);
    QTRY_VERIFY_WITH_TIMEOUT(!state->isSearching(), 10000);
    QStringList shown;
    for (const SearchResult &r : state->results()) {
        shown.append(QFileInfo(r.filePath).fileName());
    }
    QCOMPARE(shown, shownFile.isEmpty() ? QStringList() : QStringList{shownFile});
    QVERIFY(results.count() <= 1); // set once for the newer search, never for "alpha"
}

void TestDirectoryState::resultsModelFollowsDisplayResults()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "model rows come from here\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "more model rows\n"));
    DirectoryState *state = openState(m_dir->path());
    ResultsModel *model = state->resultsModel();
    QAbstractItemModelTester tester(model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    QVERIFY(indexed(state));
    QCOMPARE(model->rowCount(), 0);
    QVERIFY(searched(state, QStringLiteral("model"), SearchMode::Text));
    QCOMPARE(model->rowCount(), 2);
    const SearchResult second = model->result(1);
    state->togglePin(second);
    QCOMPARE(model->rowCount(), 2);
    QCOMPARE(model->data(model->index(0), ResultsModel::IdRole).toString(), second.id);
    QCOMPARE(model->data(model->index(0), ResultsModel::IsPinnedRole).toBool(), true);
    QCOMPARE(model->data(model->index(1), ResultsModel::IsPinnedRole).toBool(), false);
    QCOMPARE(model->data(model->index(0), Qt::DisplayRole).toString(),
             QFileInfo(second.filePath).fileName() + QStringLiteral(":1"));
}

QTEST_GUILESS_MAIN(TestDirectoryState)
#include "directory_state_test.moc"

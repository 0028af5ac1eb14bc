/*
** One tab's model: history, paging, pins, the encoder override, the git branch, the status text
** and the results model.
*/
#include "directory_state.h"
#include "git_branch.h"

#include "background.h"
#include "encoder_record.h"
#include "json_coding.h"
#include "results_model.h"
#include "test_support.h"
#include "training_manager.h"

#include <QAbstractItemModelTester>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <atomic>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

class TestDirectoryState : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void emptyQueryClearsResultsAndRecordsNothing();
    void invalidRegexSaysWhyAndRunsNothing();
    void historyDeduplicatesKeepsTenAndSurvivesReopening();
    void pagingGrowsByTenUntilSixtyFour();
    void pinnedResultsShowFirstAndNeverTwice();
    void recordsFollowAMovedOrCopiedFolder();
    void unpinningRemovesFromListAndSettings();
    void encoderOverrideFallsBackToDefault();
    void choosingDefaultRemovesTheOverrideKey();
    void statusTextReportsCountsAfterIndexing();
    void indexOfAnotherEncoderIsRebuiltWhenOpened();
    void unfinishedIndexingGoesOnWhenTheTabOpensAgain();
    void pausedIndexingSaysSoAndFinishesOnceResumed();
    void closedTabDropsLateResults();
    void olderAnswerNeverShowsOverANewerSearch_data();
    void olderAnswerNeverShowsOverANewerSearch();
    void busyIndexIsShownAndOpenedOnceFree();
    void gitBranch_data();
    void gitBranch();
    void resultsModelFollowsDisplayResults();

private:
    DirectoryState *openState(const QString &path, const QString &weights = QString());
    bool waitForIngest(DirectoryState *state);
    bool waitForSearch(DirectoryState *state);

    std::unique_ptr<IsolatedEnvironment> m_env;
    std::unique_ptr<QTemporaryDir> m_dir;
    QList<DirectoryState *> m_states;
    QList<std::shared_ptr<FixedWeights>> m_fixed;
};

void TestDirectoryState::initTestCase()
{
    m_env = std::make_unique<IsolatedEnvironment>();
}

void TestDirectoryState::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void TestDirectoryState::cleanup()
{
    qDeleteAll(m_states);
    m_states.clear();
    // Background jobs may still hold an engine; it writes its store when they let go.
    QThreadPool::globalInstance()->waitForDone();
    m_dir.reset();
}

DirectoryState *TestDirectoryState::openState(const QString &path, const QString &weights)
{
    DirectoryTab tab{QUuid::createUuid(), path, QFileInfo(path).fileName()};
    // Tabs opened with given weights use them; the others ask the training manager.
    auto fixed = std::make_shared<FixedWeights>(weights);
    const EncoderChoice *encoders = m_env->training();
    if (!weights.isEmpty()) {
        m_fixed.append(fixed);
        encoders = fixed.get();
    }
    auto *state = new DirectoryState(tab, encoders, m_env->settings());
    m_states.append(state);
    return state;
}

bool TestDirectoryState::waitForIngest(DirectoryState *state)
{
    QSignalSpy done(state, &DirectoryState::ingestFinished);
    return done.wait(20000);
}

bool TestDirectoryState::waitForSearch(DirectoryState *state)
{
    QSignalSpy done(state, &DirectoryState::searchFinished);
    return done.wait(10000);
}

void TestDirectoryState::emptyQueryClearsResultsAndRecordsNothing()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "the quick brown fox jumps\n"));
    DirectoryState *state = openState(m_dir->path());
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));
    state->search(QStringLiteral("fox"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
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
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));
    state->search(QStringLiteral("def [a-z]+"), SearchMode::Regex);
    QVERIFY(waitForSearch(state));
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

void TestDirectoryState::historyDeduplicatesKeepsTenAndSurvivesReopening()
{
    DirectoryState *state = openState(m_dir->path());
    state->addToHistory(QStringLiteral("foo"), SearchMode::Text);
    state->addToHistory(QStringLiteral("bar"), SearchMode::Text);
    state->addToHistory(QStringLiteral("foo"), SearchMode::Text);
    QCOMPARE(state->searchHistory().size(), 2);
    QCOMPARE(state->searchHistory().at(0).query, QStringLiteral("foo"));
    QCOMPARE(state->searchHistory().at(1).query, QStringLiteral("bar"));
    state->addToHistory(QStringLiteral("foo"), SearchMode::Semantic);
    state->addToHistory(QStringLiteral("Foo"), SearchMode::Text);
    QCOMPARE(state->searchHistory().size(), 4);
    QCOMPARE(state->searchHistory().at(1).mode, SearchMode::Semantic);
    QCOMPARE(state->searchHistory().at(2).mode, SearchMode::Text);

    // The ten most recent stay, in the settings as well.
    QSignalSpy changed(state, &DirectoryState::searchHistoryChanged);
    for (int i = 1; i <= 11; i++) {
        state->addToHistory(QStringLiteral("query %1").arg(i), SearchMode::Regex);
    }
    QCOMPARE(changed.count(), 11);
    QCOMPARE(state->searchHistory().size(), 10);
    QCOMPARE(state->searchHistory().first().query, QStringLiteral("query 11"));
    QCOMPARE(state->searchHistory().last().query, QStringLiteral("query 2"));
    const std::optional<QList<SearchHistoryEntry>> stored =
        SearchHistoryEntry::decodeList(m_env->settings()->searchHistoryData(m_dir->path()));
    QVERIFY(stored);
    QCOMPARE(stored->size(), 10);

    state->addToHistory(QStringLiteral("plain"), SearchMode::Text); // a second mode to keep
    const QList<SearchHistoryEntry> before = state->searchHistory();
    // Garbage under another directory's key does not disturb this one.
    m_env->settings()->setSearchHistoryData(m_dir->path() + QStringLiteral("/sub"), "garbage");
    qDeleteAll(m_states);
    m_states.clear();
    DirectoryState *again = openState(m_dir->path());
    QCOMPARE(again->searchHistory(), before);
    DirectoryState *other = openState(m_dir->path() + QStringLiteral("/sub"));
    QVERIFY(other->searchHistory().isEmpty());
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

    state->search(QStringLiteral("alpha"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
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
    state->search(QStringLiteral("omega"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
    QCOMPARE(state->results().size(), 1);
    QVERIFY(!state->hasMoreResults());
}

static SearchResult makeResult(const QString &id, const QString &path)
{
    SearchResult r;
    r.id = id;
    r.filePath = path;
    r.snippet = QStringLiteral("snippet of ") + id;
    r.score = 0.5f;
    r.chunkIndex = 2;
    r.lineNumber = 9;
    r.fileType = 3;
    return r;
}

void TestDirectoryState::pinnedResultsShowFirstAndNeverTwice()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "apples and pears in the basket\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "apples grow on trees in autumn\n"));
    DirectoryState *state = openState(m_dir->path());
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));
    state->search(QStringLiteral("apples"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
    QCOMPARE(state->results().size(), 2);
    const SearchResult second = state->results().at(1);

    QSignalSpy display(state, &DirectoryState::displayResultsChanged);
    state->togglePin(second);
    QCOMPARE(display.count(), 1);
    QVERIFY(state->isPinned(second));
    QList<SearchResult> shown = state->displayResults();
    QCOMPARE(shown.size(), 2); // pinned first, not repeated
    QCOMPARE(shown.at(0), second);
    QCOMPARE(shown.at(1), state->results().at(0));

    // Unrelated search: the pin stays on top.
    state->search(QStringLiteral("basket"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
    shown = state->displayResults();
    QCOMPARE(shown.size(), 2);
    QCOMPARE(shown.at(0).id, second.id);
    QVERIFY(shown.at(1).filePath.endsWith(QStringLiteral("a.txt")));

    // A pin from the settings is shown even when nothing else is.
    qDeleteAll(m_states);
    m_states.clear();
    DirectoryState *again = openState(m_dir->path());
    QCOMPARE(again->displayResults().size(), 1);
    QCOMPARE(again->displayResults().first(), second);
}

// The index keeps working after its folder moved: the history and the pins come along, the pins
// naming the new paths, and nothing is indexed again. A copy gets its own, the original keeps its.
void TestDirectoryState::recordsFollowAMovedOrCopiedFolder()
{
    const QString docs = m_dir->filePath(QStringLiteral("docs"));
    const QString moved = m_dir->filePath(QStringLiteral("moved"));
    const QString copy = m_dir->filePath(QStringLiteral("copy"));
    QVERIFY(writeFile(docs, QStringLiteral("a.txt"), "apples and pears in the basket\n"));
    DirectoryState *state = openState(docs);
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));
    state->search(QStringLiteral("apples"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
    QCOMPARE(state->results().size(), 1);
    state->togglePin(state->results().first());
    const QList<SearchHistoryEntry> history = state->searchHistory();
    QCOMPARE(history.size(), 1);
    qDeleteAll(m_states);
    m_states.clear();
    QThreadPool::globalInstance()->waitForDone();

    QVERIFY(QDir().rename(docs, moved));
    DirectoryState *after = openState(moved);
    QVERIFY(!after->isIngesting());
    QCOMPARE(after->searchHistory(), history);
    QCOMPARE(after->pinnedResults().size(), 1);
    QCOMPARE(after->pinnedResults().first().filePath, moved + QStringLiteral("/a.txt"));
    QVERIFY(m_env->settings()->searchHistoryData(docs).isEmpty());
    QVERIFY(m_env->settings()->pinnedResultsData(docs).isEmpty());
    qDeleteAll(m_states);
    m_states.clear();
    QThreadPool::globalInstance()->waitForDone();

    QCOMPARE(QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), moved, copy}), 0);
    DirectoryState *copied = openState(copy);
    QCOMPARE(copied->searchHistory(), history);
    QCOMPARE(copied->pinnedResults().first().filePath, copy + QStringLiteral("/a.txt"));
    QCOMPARE(openState(moved)->pinnedResults().first().filePath, moved + QStringLiteral("/a.txt"));
}

void TestDirectoryState::unpinningRemovesFromListAndSettings()
{
    DirectoryState *state = openState(m_dir->path());
    const SearchResult a = makeResult(QStringLiteral("/x/a.txt:0"), QStringLiteral("/x/a.txt"));
    const SearchResult b = makeResult(QStringLiteral("/x/b.txt:0"), QStringLiteral("/x/b.txt"));
    state->togglePin(a);
    state->togglePin(b);
    QCOMPARE(state->pinnedResults().size(), 2);
    state->togglePin(a);
    QCOMPARE(state->pinnedResults().size(), 1);
    QCOMPARE(state->pinnedResults().first().id, b.id);
    const std::optional<QList<PinnedResult>> stored =
        PinnedResult::decodeList(m_env->settings()->pinnedResultsData(m_dir->path()));
    QVERIFY(stored);
    QCOMPARE(stored->size(), 1);
    QCOMPARE(stored->first().toResult(), b);
    QVERIFY(!state->isPinned(a));
}

void TestDirectoryState::encoderOverrideFallsBackToDefault()
{
    TrainingManager *manager = m_env->training();
    TrainingProfile draft;
    draft.name = QStringLiteral("Override profile");
    TrainingProfile profile = manager->createProfile(draft);
    TrainingProfile defaultDraft;
    defaultDraft.name = QStringLiteral("Default profile");
    TrainingProfile defaultProfile = manager->createProfile(defaultDraft);
    manager->setDefaultProfileId(defaultProfile.id);
    defaultProfile.status = TrainingStatus::Trained;
    manager->updateProfile(defaultProfile);

    m_env->settings()->setEncoderOverride(m_dir->path(), JsonCoding::uuidText(profile.id));
    DirectoryState *state = openState(m_dir->path());
    QCOMPARE(state->overrideProfileId(), profile.id);
    // Not trained yet: the default profile's weights.
    QCOMPARE(state->effectiveWeightsPath(), defaultProfile.weightsPath);

    profile.status = TrainingStatus::Trained;
    manager->updateProfile(profile);
    QCOMPARE(state->effectiveWeightsPath(), profile.weightsPath);
    profile.status = TrainingStatus::Failed;
    manager->updateProfile(profile);
    QCOMPARE(state->effectiveWeightsPath(), defaultProfile.weightsPath);

    manager->deleteProfile(profile);
    QCOMPARE(state->effectiveWeightsPath(), defaultProfile.weightsPath);
    // The override stays stored so it applies once such a profile exists again.
    QVERIFY(m_env->settings()->encoderOverride(m_dir->path()));

    manager->deleteProfile(defaultProfile);
    QCOMPARE(state->effectiveWeightsPath(), QString());

    m_env->settings()->setEncoderOverride(m_dir->path(), QStringLiteral("not a uuid"));
    DirectoryState *garbled = openState(m_dir->path());
    QVERIFY(garbled->overrideProfileId().isNull());
}

void TestDirectoryState::choosingDefaultRemovesTheOverrideKey()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "words to index again and again\n"));
    const QUuid someId = QUuid::createUuid();
    m_env->settings()->setEncoderOverride(m_dir->path(), JsonCoding::uuidText(someId));
    m_env->settings()->setChunkSize(0); // reads as 800
    DirectoryState *state = openState(m_dir->path());
    QSignalSpy overrideChanged(state, &DirectoryState::overrideProfileIdChanged);
    state->setEncoderProfile(QUuid());
    QCOMPARE(overrideChanged.count(), 1);
    QVERIFY(state->isIngesting());
    QCOMPARE(state->statusText(), QStringLiteral("Indexing..."));
    QCOMPARE(m_env->settings()->encoderOverride(m_dir->path()), std::nullopt);
    QVERIFY(waitForIngest(state));
    QCOMPARE(state->statusText(), QStringLiteral("1 chunks from 1 files"));

    state->setEncoderProfile(someId);
    QCOMPARE(m_env->settings()->encoderOverride(m_dir->path()),
             std::optional<QString>(JsonCoding::uuidText(someId)));
    QVERIFY(waitForIngest(state));
    m_env->settings()->remove(QStringLiteral("chunkSize"));
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
        qDeleteAll(m_states);
        m_states.clear();
        QThreadPool::globalInstance()->waitForDone();
        return openState(m_dir->path(), weights);
    };

    DirectoryState *first = openState(m_dir->path());
    first->ingest(800, 200);
    QVERIFY(waitForIngest(first));
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
    qDeleteAll(m_states);
    m_states.clear();
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
    qDeleteAll(m_states);
    m_states.clear();
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
    fresh->ingest(100, 20);
    QVERIFY(waitForIngest(fresh));
    QVERIFY(!fresh->isIngesting());
    QCOMPARE(fresh->ingestFilesFound(), 2);
    QCOMPARE(fresh->ingestFilesDone(), 2);
    QCOMPARE(found.count(), 1);
    QCOMPARE(done.count(), 2);
    QCOMPARE(fresh->statusText(), QStringLiteral("4 chunks from 2 files"));

    // The next tab on the same directory opens the checkpointed index.
    qDeleteAll(m_states);
    m_states.clear();
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
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));

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

void TestDirectoryState::gitBranch_data()
{
    QTest::addColumn<QString>("layout"); // "dir", "file", "bad-file" or "none"
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<QString>("subdirectory");
    QTest::addColumn<QString>("branch");

    QTest::newRow("branch with a slash") << "dir" << QByteArray("ref: refs/heads/feature/x\n") << ""
                                         << "feature/x";
    QTest::newRow("three levels below the root")
        << "dir" << QByteArray("ref: refs/heads/main") << "a/b/c"
        << "main";
    QTest::newRow("detached head")
        << "dir" << QByteArray("0123456789abcdef0123456789abcdef01234567\n") << ""
        << "0123456";
    QTest::newRow("short detached text") << "dir" << QByteArray("abc\n") << ""
                                         << "";
    QTest::newRow("worktree .git file") << "file" << QByteArray("ref: refs/heads/wt\n") << "src"
                                        << "wt";
    QTest::newRow(".git file without gitdir")
        << "bad-file" << QByteArray("ref: refs/heads/x\n") << ""
        << "";
    QTest::newRow("no repository") << "none" << QByteArray() << "deep/er"
                                   << "";
}

void TestDirectoryState::gitBranch()
{
    QFETCH(QString, layout);
    QFETCH(QByteArray, head);
    QFETCH(QString, subdirectory);
    const QString root = m_dir->filePath(QStringLiteral("repo"));
    QDir().mkpath(root + QLatin1Char('/') + subdirectory);
    if (layout == QLatin1String("dir")) {
        QVERIFY(writeFile(root, QStringLiteral(".git/HEAD"), head));
    } else if (layout == QLatin1String("file")) {
        const QString gitDir = m_dir->filePath(QStringLiteral("elsewhere/worktrees/wt"));
        QVERIFY(writeFile(gitDir, QStringLiteral("HEAD"), head));
        QVERIFY(writeFile(root, QStringLiteral(".git"), "gitdir: " + gitDir.toUtf8() + "\n"));
    } else if (layout == QLatin1String("bad-file")) {
        QVERIFY(writeFile(root, QStringLiteral(".git"), "something else\n"));
    }
    const QString path = subdirectory.isEmpty() ? root : root + QLatin1Char('/') + subdirectory;
    QTEST(::detectGitBranch(path), "branch");
    DirectoryState *state = openState(path);
    QTEST(state->gitBranch(), "branch");
}

void TestDirectoryState::resultsModelFollowsDisplayResults()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "model rows come from here\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "more model rows\n"));
    DirectoryState *state = openState(m_dir->path());
    ResultsModel *model = state->resultsModel();
    QAbstractItemModelTester tester(model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    state->ingest(800, 200);
    QVERIFY(waitForIngest(state));
    QCOMPARE(model->rowCount(), 0);
    state->search(QStringLiteral("model"), SearchMode::Text);
    QVERIFY(waitForSearch(state));
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

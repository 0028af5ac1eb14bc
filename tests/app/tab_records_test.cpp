/*
** What a tab keeps between runs: its search history, its pins, its encoder override (all three
** following a moved or copied folder) and the git branch it shows.
*/
#include "directory_state_fixture.h"

#include "git_branch.h"
#include "json_coding.h"
#include "training_manager.h"

#include <QProcess>

class TestTabRecords : public DirectoryStateFixture
{
    Q_OBJECT

private slots:
    void initTestCase() { setUpCase(); }
    void init() { QVERIFY(setUp()); }
    void cleanup() { tearDown(); }
    void historyDeduplicatesKeepsTenAndSurvivesReopening();
    void pinnedResultsShowFirstAndNeverTwice();
    void recordsFollowAMovedOrCopiedFolder();
    void unpinningRemovesFromListAndSettings();
    void encoderOverrideFallsBackToDefault();
    void choosingDefaultRemovesTheOverrideKey();
    void gitBranch_data();
    void gitBranch();
};

void TestTabRecords::historyDeduplicatesKeepsTenAndSurvivesReopening()
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
    closeStates();
    DirectoryState *again = openState(m_dir->path());
    QCOMPARE(again->searchHistory(), before);
    DirectoryState *other = openState(m_dir->path() + QStringLiteral("/sub"));
    QVERIFY(other->searchHistory().isEmpty());
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

void TestTabRecords::pinnedResultsShowFirstAndNeverTwice()
{
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("a.txt"), "apples and pears in the basket\n"));
    QVERIFY(writeFile(m_dir->path(), QStringLiteral("b.txt"), "apples grow on trees in autumn\n"));
    DirectoryState *state = openState(m_dir->path());
    QVERIFY(indexed(state));
    QVERIFY(searched(state, QStringLiteral("apples"), SearchMode::Text));
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
    QVERIFY(searched(state, QStringLiteral("basket"), SearchMode::Text));
    shown = state->displayResults();
    QCOMPARE(shown.size(), 2);
    QCOMPARE(shown.at(0).id, second.id);
    QVERIFY(shown.at(1).filePath.endsWith(QStringLiteral("a.txt")));

    // A pin from the settings is shown even when nothing else is.
    closeStates();
    DirectoryState *again = openState(m_dir->path());
    QCOMPARE(again->displayResults().size(), 1);
    QCOMPARE(again->displayResults().first(), second);
}

// The index keeps working after its folder moved: the history and the pins come along, the pins
// naming the new paths, and nothing is indexed again. A copy gets its own, the original keeps its.
void TestTabRecords::recordsFollowAMovedOrCopiedFolder()
{
    const QString docs = m_dir->filePath(QStringLiteral("docs"));
    const QString moved = m_dir->filePath(QStringLiteral("moved"));
    const QString copy = m_dir->filePath(QStringLiteral("copy"));
    QVERIFY(writeFile(docs, QStringLiteral("a.txt"), "apples and pears in the basket\n"));
    DirectoryState *state = openState(docs);
    QVERIFY(indexed(state));
    QVERIFY(searched(state, QStringLiteral("apples"), SearchMode::Text));
    QCOMPARE(state->results().size(), 1);
    state->togglePin(state->results().first());
    const QList<SearchHistoryEntry> history = state->searchHistory();
    QCOMPARE(history.size(), 1);
    closeStates();
    QThreadPool::globalInstance()->waitForDone();

    QVERIFY(QDir().rename(docs, moved));
    DirectoryState *after = openState(moved);
    QVERIFY(!after->isIngesting());
    QCOMPARE(after->searchHistory(), history);
    QCOMPARE(after->pinnedResults().size(), 1);
    QCOMPARE(after->pinnedResults().first().filePath, moved + QStringLiteral("/a.txt"));
    QVERIFY(m_env->settings()->searchHistoryData(docs).isEmpty());
    QVERIFY(m_env->settings()->pinnedResultsData(docs).isEmpty());
    closeStates();
    QThreadPool::globalInstance()->waitForDone();

    QCOMPARE(QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), moved, copy}), 0);
    DirectoryState *copied = openState(copy);
    QCOMPARE(copied->searchHistory(), history);
    QCOMPARE(copied->pinnedResults().first().filePath, copy + QStringLiteral("/a.txt"));
    QCOMPARE(openState(moved)->pinnedResults().first().filePath, moved + QStringLiteral("/a.txt"));
}

void TestTabRecords::unpinningRemovesFromListAndSettings()
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

void TestTabRecords::encoderOverrideFallsBackToDefault()
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

void TestTabRecords::choosingDefaultRemovesTheOverrideKey()
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

void TestTabRecords::gitBranch_data()
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

void TestTabRecords::gitBranch()
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

QTEST_GUILESS_MAIN(TestTabRecords)
#include "tab_records_test.moc"

/*
** The application model: restoring, adding, selecting, closing and reordering tabs, the stored
** chunk size, copying a prompt, and two tabs that search and index at the same time.
*/
#include "app_state.h"

#include "clipboard.h"
#include "directory_state.h"
#include "encoder_record.h"
#include "test_support.h"
#include "training_manager.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtTest>

namespace
{

class RecordingClipboard : public Clipboard
{
public:
    void setText(const QString &text) override { texts.append(text); }
    QStringList texts;
};

} // namespace

class TestAppState : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void restoreSkipsMissingAndRepeatedPathsAndFallsBackToFirstTab();
    void aMovedFolderIsFoundBesideItsOldPlaceOrLocatedWithItsHistory();
    void restoreSelectsTheSavedActiveTab();
    void closingTheActiveMiddleTabSelectsTheLast();
    void dragReordersBothWays();
    void addingAnOpenDirectoryOnlySelectsIt();
    void addingAnIndexedDirectoryDoesNotReindex();
    void storedChunkSizeBelowOneIndexesWith800();
    void selectingATabRerunsTheSharedQuery();
    void changingTheModeRerunsTheQuery();
    void allTabsSearchesEveryOpenFolderAsOneRanking();
    void copyPromptUsesTheClipboard();
    void concurrentSearchesAndIndexingOnTwoTabs();

private:
    QString makeDir(const QString &name);
    std::unique_ptr<AppState> restoredState();
    static QStringList tabNames(const AppState &app);

    std::unique_ptr<IsolatedEnvironment> m_env;
    std::unique_ptr<QTemporaryDir> m_root;
};

void TestAppState::initTestCase()
{
    m_env = std::make_unique<IsolatedEnvironment>();
}

void TestAppState::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    for (const char *key : {"savedTabPaths", "activeTabPath", "chunkSize", "overlap"}) {
        m_env->settings()->remove(QLatin1String(key));
    }
}

void TestAppState::cleanup()
{
    QThreadPool::globalInstance()->waitForDone();
    m_root.reset();
}

QString TestAppState::makeDir(const QString &name)
{
    const QString path = m_root->filePath(name);
    QDir().mkpath(path);
    return path;
}

std::unique_ptr<AppState> TestAppState::restoredState()
{
    auto app = std::make_unique<AppState>(m_env->settings());
    QSignalSpy restored(app.get(), &AppState::stateRestored);
    if (!restored.wait(5000)) {
        return nullptr;
    }
    return app;
}

QStringList TestAppState::tabNames(const AppState &app)
{
    QStringList names;
    for (const DirectoryTab &tab : app.tabs()) {
        names.append(tab.name);
    }
    return names;
}

void TestAppState::restoreSkipsMissingAndRepeatedPathsAndFallsBackToFirstTab()
{
    const QString a = makeDir(QStringLiteral("A"));
    const QString gone = makeDir(QStringLiteral("Gone"));
    const QString c = makeDir(QStringLiteral("C"));
    QVERIFY(writeFile(a, QStringLiteral("a.txt"), "text that is never indexed at restore\n"));
    m_env->settings()->setSavedTabPaths({a, gone, c, a}); // a directory is never opened twice
    m_env->settings()->setActiveTabPath(gone);
    QVERIFY(QDir(gone).removeRecursively());

    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    QCOMPARE(tabNames(*app), QStringList({QStringLiteral("A"), QStringLiteral("C")}));
    QCOMPARE(app->activeTabId(), app->tabs().first().id);
    DirectoryState *state = app->activeState();
    QVERIFY(state);
    QVERIFY(!state->isIngesting()); // restored tabs are not re-indexed
    QCOMPARE(state->statusText(), QStringLiteral("Not indexed"));
    // The missing path is named, and kept in the saved list until it is forgotten.
    QCOMPARE(app->missingTabPaths(), QStringList({gone}));
    app->saveState();
    QCOMPARE(m_env->settings()->savedTabPaths(), QStringList({a, c, gone}));
    QCOMPARE(m_env->settings()->activeTabPath(), std::optional<QString>(a));
    QSignalSpy missingChanged(app.get(), &AppState::missingTabPathsChanged);
    app->forgetMissingTab(gone);
    QCOMPARE(missingChanged.count(), 1);
    QCOMPARE(m_env->settings()->savedTabPaths(), QStringList({a, c}));
}

// A folder renamed beside its old place is opened there, with its history, found by the place
// its index noted; one moved elsewhere waits to be located, and keeps its history there too.
void TestAppState::aMovedFolderIsFoundBesideItsOldPlaceOrLocatedWithItsHistory()
{
    const QString notes = makeDir(QStringLiteral("notes"));
    const QString papers = makeDir(QStringLiteral("papers"));
    QVERIFY(writeFile(notes, QStringLiteral(".tarnwick/place"), notes.toUtf8()));
    const QByteArray history = SearchHistoryEntry::encodeList(
        {SearchHistoryEntry{QUuid::createUuid(), QStringLiteral("tides"), SearchMode::Text, {}}});
    m_env->settings()->setSearchHistoryData(notes, history);
    m_env->settings()->setSearchHistoryData(papers, history);
    m_env->settings()->setSavedTabPaths({notes, papers});
    m_env->settings()->setActiveTabPath(notes);
    const QString renamed = m_root->filePath(QStringLiteral("notes-2024"));
    QVERIFY(QDir().rename(notes, renamed));
    const QString elsewhere = makeDir(QStringLiteral("archive/papers"));
    QVERIFY(QDir(papers).removeRecursively());

    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    QCOMPARE(tabNames(*app), QStringList({QStringLiteral("notes-2024")}));
    QCOMPARE(app->activeTabId(), app->tabs().first().id);
    QCOMPARE(m_env->settings()->searchHistoryData(renamed), history);
    QCOMPARE(app->missingTabPaths(), QStringList({papers}));

    app->locateMissingTab(papers, elsewhere);
    QVERIFY(app->missingTabPaths().isEmpty());
    QCOMPARE(tabNames(*app), QStringList({QStringLiteral("notes-2024"), QStringLiteral("papers")}));
    QCOMPARE(m_env->settings()->searchHistoryData(elsewhere), history);
    QCOMPARE(m_env->settings()->savedTabPaths(), QStringList({renamed, elsewhere}));
}

void TestAppState::restoreSelectsTheSavedActiveTab()
{
    const QString a = makeDir(QStringLiteral("A"));
    const QString b = makeDir(QStringLiteral("B"));
    m_env->settings()->setSavedTabPaths({a, b});
    m_env->settings()->setActiveTabPath(b);
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    QCOMPARE(app->activeTab()->path, b);

    m_env->settings()->setSavedTabPaths({});
    std::unique_ptr<AppState> empty = restoredState();
    QVERIFY(empty);
    QVERIFY(empty->tabs().isEmpty());
    QVERIFY(empty->activeTabId().isNull());
    QVERIFY(!empty->activeState());
}

void TestAppState::closingTheActiveMiddleTabSelectsTheLast()
{
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    const QString a = makeDir(QStringLiteral("A"));
    const QString b = makeDir(QStringLiteral("B"));
    const QString c = makeDir(QStringLiteral("C"));
    app->openDirectory({a, b, c});
    QCOMPARE(tabNames(*app), QStringList({"A", "B", "C"}));
    const QList<DirectoryTab> tabs = app->tabs();
    app->selectTab(tabs.at(1).id);

    QPointer<DirectoryState> closing = app->stateFor(tabs.at(1).id);
    QSignalSpy active(app.get(), &AppState::activeTabIdChanged);
    app->closeTab(tabs.at(1).id);
    QVERIFY(closing.isNull());
    QCOMPARE(tabNames(*app), QStringList({"A", "C"}));
    QCOMPARE(app->activeTabId(), tabs.at(2).id);
    QCOMPARE(active.count(), 1);
    QCOMPARE(m_env->settings()->savedTabPaths(), QStringList({a, c}));
    QCOMPARE(m_env->settings()->activeTabPath(), std::optional<QString>(c));

    // Closing a tab that is not active keeps the selection.
    app->closeTab(tabs.at(0).id);
    QCOMPARE(app->activeTabId(), tabs.at(2).id);
    app->closeActiveTab();
    QVERIFY(app->tabs().isEmpty());
    QVERIFY(app->activeTabId().isNull());
    QCOMPARE(m_env->settings()->activeTabPath(), std::nullopt);
    QVERIFY(m_env->settings()->savedTabPaths().isEmpty());
}

void TestAppState::dragReordersBothWays()
{
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->openDirectory(
        {makeDir(QStringLiteral("A")), makeDir(QStringLiteral("B")), makeDir(QStringLiteral("C"))});
    auto id = [&app](int i) {
        return app->tabs().at(i).id;
    };
    QSignalSpy tabsChanged(app.get(), &AppState::tabsChanged);

    app->moveTab(id(0), id(2)); // A onto C
    QCOMPARE(tabNames(*app), QStringList({"B", "C", "A"}));
    app->moveTab(id(1), id(0)); // C onto B
    QCOMPARE(tabNames(*app), QStringList({"C", "B", "A"}));
    app->moveTab(id(2), id(0)); // A onto C
    QCOMPARE(tabNames(*app), QStringList({"A", "C", "B"}));
    QCOMPARE(tabsChanged.count(), 3);

    app->moveTab(id(1), id(1));
    app->moveTab(id(1), QUuid::createUuid());
    QCOMPARE(tabNames(*app), QStringList({"A", "C", "B"}));
    QCOMPARE(tabsChanged.count(), 3);
}

void TestAppState::addingAnOpenDirectoryOnlySelectsIt()
{
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    const QString a = makeDir(QStringLiteral("A"));
    const QString b = makeDir(QStringLiteral("B"));
    app->addTab(a);
    app->addTab(b);
    const QUuid first = app->tabs().first().id;
    DirectoryState *stateA = app->stateFor(first);
    QSignalSpy tabsChanged(app.get(), &AppState::tabsChanged);
    app->addTab(a);
    QCOMPARE(tabsChanged.count(), 0);
    QCOMPARE(app->tabs().size(), 2);
    QCOMPARE(app->activeTabId(), first);
    QCOMPARE(app->stateFor(first), stateA);
}

void TestAppState::addingAnIndexedDirectoryDoesNotReindex()
{
    const QString dir = makeDir(QStringLiteral("Indexed"));
    QVERIFY(writeFile(dir, QStringLiteral("a.txt"), "already indexed text in here\n"));
    {
        IndexHandle engine(dir, QString());
        QVERIFY(engine.ingestDirectory(800, 200, *m_env->walk()) > 0);
    }
    // built with the encoder the tab will use (no trained profile, no built-in beside the test)
    QVERIFY(EncoderRecord::write(dir, QString()));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->addTab(dir);
    DirectoryState *state = app->activeState();
    QVERIFY(state);
    QVERIFY(!state->isIngesting());
    QCOMPARE(state->statusText(), QStringLiteral("1 chunks from 1 files"));

    const QString fresh = makeDir(QStringLiteral("Fresh"));
    QVERIFY(writeFile(fresh, QStringLiteral("b.txt"), "new text to index\n"));
    app->addTab(fresh);
    QVERIFY(app->activeState()->isIngesting());
    QTRY_VERIFY_WITH_TIMEOUT(!app->activeState()->isIngesting(), 20000);
    QCOMPARE(app->activeState()->statusText(), QStringLiteral("1 chunks from 1 files"));
}

void TestAppState::storedChunkSizeBelowOneIndexesWith800()
{
    // 2000 bytes: windows of 800 every 600 bytes give 2 chunks; the engine's own reading of a
    // chunk size of 0 would give something else.
    const QByteArray text(2000, 'z');
    const QString reference = makeDir(QStringLiteral("Reference"));
    QVERIFY(writeFile(reference, QStringLiteral("z.txt"), text));
    int expected = 0;
    {
        IndexHandle engine(reference, QString());
        expected = engine.ingestDirectory(800, 200, *m_env->walk());
        QVERIFY(expected > 0);
        engine.clearAndReopen(QString());
        QVERIFY(engine.ingestDirectory(100, 20, *m_env->walk()) != expected);
    }
    m_env->settings()->setChunkSize(0);
    m_env->settings()->setOverlap(-7);
    const QString dir = makeDir(QStringLiteral("Zero"));
    QVERIFY(writeFile(dir, QStringLiteral("z.txt"), text));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->addTab(dir);
    QTRY_VERIFY_WITH_TIMEOUT(!app->activeState()->isIngesting(), 20000);
    QCOMPARE(int(app->activeState()->engine()->stats().chunk_count), expected);

    // Re-index reads the settings again.
    QVERIFY(m_env->settings()->setChunking(100, 20));
    app->reindexActive();
    QVERIFY(app->activeState()->isIngesting());
    QTRY_VERIFY_WITH_TIMEOUT(!app->activeState()->isIngesting(), 20000);
    QVERIFY(int(app->activeState()->engine()->stats().chunk_count) > expected);
}

void TestAppState::selectingATabRerunsTheSharedQuery()
{
    const QString a = makeDir(QStringLiteral("A"));
    const QString b = makeDir(QStringLiteral("B"));
    QVERIFY(writeFile(a, QStringLiteral("a.txt"), "shared query word lives here\n"));
    QVERIFY(writeFile(b, QStringLiteral("b.txt"), "the word is also here\n"));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->openDirectory({a, b});
    QTRY_VERIFY_WITH_TIMEOUT(!app->stateFor(app->tabs().at(0).id)->isIngesting()
                                 && !app->stateFor(app->tabs().at(1).id)->isIngesting(),
                             20000);
    app->setQuery(QStringLiteral("word"));
    app->setSearchMode(SearchMode::Text);
    app->performSearch();
    DirectoryState *stateB = app->activeState();
    QTRY_COMPARE(stateB->results().size(), 1);

    DirectoryState *stateA = app->stateFor(app->tabs().at(0).id);
    app->selectTab(app->tabs().at(0).id);
    QCOMPARE(stateA->searchHistory().size(), 1);
    QTRY_COMPARE(stateA->results().size(), 1);
    QVERIFY(stateA->results().first().filePath.endsWith(QStringLiteral("a.txt")));
    QCOMPARE(m_env->settings()->activeTabPath(), std::optional<QString>(a));
}

void TestAppState::allTabsSearchesEveryOpenFolderAsOneRanking()
{
    const QString a = makeDir(QStringLiteral("A"));
    const QString b = makeDir(QStringLiteral("B"));
    const QString c = makeDir(QStringLiteral("C"));
    QVERIFY(writeFile(a, QStringLiteral("a1.txt"), "the word in a first file\n"));
    QVERIFY(writeFile(a, QStringLiteral("a2.txt"), "the word in a second file\n"));
    QVERIFY(writeFile(b, QStringLiteral("b.txt"), "the word in the only file of b\n"));
    QVERIFY(writeFile(c, QStringLiteral("c.txt"), "the word in the only file of c\n"));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->openDirectory({a, b, c});
    for (const DirectoryTab &tab : app->tabs()) {
        QTRY_VERIFY_WITH_TIMEOUT(!app->stateFor(tab.id)->isIngesting(), 20000);
    }
    DirectoryState *state = app->activeState(); // C, opened last
    app->setQuery(QStringLiteral("word"));
    app->setSearchMode(SearchMode::Text);
    QSignalSpy finished(state, &DirectoryState::searchFinished);
    app->setSearchAllTabs(true); // searches at once: the query is not empty
    QVERIFY(finished.wait(20000));
    QVERIFY(state->searchesAcrossTabs());
    // Each folder's first, then each folder's second: the active tab's first.
    QStringList folders;
    for (const SearchResult &r : state->results()) {
        QVERIFY(r.filePath.startsWith(r.folder + QLatin1Char('/')));
        folders.append(QFileInfo(r.folder).fileName());
    }
    QCOMPARE(folders, (QStringList{"C", "A", "B", "A"}));

    // Another folder's file opens its passages from its own index.
    const SearchResult fromA = state->results().at(1);
    QSignalSpy expanded(state, &DirectoryState::expandedFilesChanged);
    state->toggleFile(fromA.filePath);
    QVERIFY(expanded.wait(20000));
    QCOMPARE(state->passagesOf(fromA.filePath).size(), 1);
    QCOMPARE(state->passagesOf(fromA.filePath).first().folder, a);

    // A closed tab drops out of the ranking; the scope back to one tab searches only that.
    app->closeTab(app->tabs().at(1).id);
    app->performSearch();
    QVERIFY(finished.wait(20000));
    QCOMPARE(state->results().size(), 3);
    app->setSearchAllTabs(false);
    QVERIFY(finished.wait(20000));
    QVERIFY(!state->searchesAcrossTabs());
    QCOMPARE(state->results().size(), 1);
    QCOMPARE(state->results().first().folder, c);
}

void TestAppState::changingTheModeRerunsTheQuery()
{
    const QString dir = makeDir(QStringLiteral("Modes"));
    QVERIFY(writeFile(dir, QStringLiteral("a.txt"), "a word and another words\n"));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->addTab(dir);
    DirectoryState *state = app->activeState();
    QTRY_VERIFY_WITH_TIMEOUT(!state->isIngesting(), 20000);
    app->setSearchMode(SearchMode::Text);
    QVERIFY(!state->isSearching()); // no query yet: nothing to re-run
    app->setQuery(QStringLiteral("wor[a-z]s"));
    app->performSearch();
    QTRY_VERIFY(!state->isSearching());
    QVERIFY(state->results().isEmpty()); // no literal "wor[a-z]s" in the text

    // Only the picker changes; the regular expression matches "words".
    for (SearchMode mode : {SearchMode::Regex, SearchMode::Text, SearchMode::Regex}) {
        app->setSearchMode(mode);
        QVERIFY(state->isSearching());
        QTRY_VERIFY(!state->isSearching());
        QCOMPARE(state->lastMode(), mode);
        QCOMPARE(state->results().size(), mode == SearchMode::Regex ? 1 : 0);
    }
    QCOMPARE(state->searchHistory().first().mode, SearchMode::Regex);
}

void TestAppState::copyPromptUsesTheClipboard()
{
    const QString dir = makeDir(QStringLiteral("Notes"));
    QVERIFY(writeFile(dir, QStringLiteral("list.txt"), "  buy milk and bread\n"));
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    RecordingClipboard clipboard;
    app->setClipboard(&clipboard);
    app->copyPrompt();
    QVERIFY(clipboard.texts.isEmpty()); // no tab

    app->addTab(dir);
    QTRY_VERIFY_WITH_TIMEOUT(!app->activeState()->isIngesting(), 20000);
    app->copyPrompt(PromptScope::Top5);
    QCOMPARE(clipboard.texts.last(), QStringLiteral("No results to include in prompt."));

    app->setQuery(QStringLiteral("milk"));
    app->setSearchMode(SearchMode::Text);
    app->performSearch();
    QTRY_COMPARE(app->activeState()->results().size(), 1);
    QSignalSpy copied(app.get(), &AppState::promptCopied);
    app->copyPrompt();
    QCOMPARE(copied.count(), 1);
    QVERIFY(copied.first().first().toString().contains(QStringLiteral(" 1 result")));
    // The prompt holds the active tab's result and the query (its layout is the builder's).
    QVERIFY(clipboard.texts.last().contains(QStringLiteral("[Notes/list.txt, line 1]\nbuy milk")));
    QVERIFY(clipboard.texts.last().endsWith(QStringLiteral("\nmilk\n")));
}

void TestAppState::concurrentSearchesAndIndexingOnTwoTabs()
{
    // Both tabs index while both search, over and over; every engine call meets the others only
    // through the process-wide lock (run under ThreadSanitizer by `make tsan`).
    const QString a = makeDir(QStringLiteral("Left"));
    const QString b = makeDir(QStringLiteral("Right"));
    for (int i = 0; i < 12; i++) {
        QVERIFY(writeFile(a,
                          QStringLiteral("left%1.txt").arg(i),
                          QByteArray("left side document number ") + QByteArray::number(i)
                              + QByteArray(300, '.')));
        QVERIFY(writeFile(b,
                          QStringLiteral("right%1.md").arg(i),
                          QByteArray("right side note number ") + QByteArray::number(i)
                              + QByteArray(300, '-')));
    }
    std::unique_ptr<AppState> app = restoredState();
    QVERIFY(app);
    app->openDirectory({a, b});
    DirectoryState *left = app->stateFor(app->tabs().at(0).id);
    DirectoryState *right = app->stateFor(app->tabs().at(1).id);
    QVERIFY(left->isIngesting() && right->isIngesting());
    const QList<SearchMode> modes = allSearchModes();
    for (int round = 0; round < 6; round++) {
        const SearchMode mode = modes.at(round % modes.size());
        left->search(QStringLiteral("number"), mode);
        right->search(QStringLiteral("side"), mode);
        left->loadFileList();
        right->loadFileList();
        QTest::qWait(5);
    }
    QTRY_VERIFY_WITH_TIMEOUT(!left->isIngesting() && !right->isIngesting(), 30000);
    QTRY_VERIFY_WITH_TIMEOUT(!left->isSearching() && !right->isSearching(), 10000);
    QTRY_VERIFY(!left->isLoadingFileList() && !right->isLoadingFileList());

    QCOMPARE(left->statusText(), QStringLiteral("12 chunks from 12 files"));
    QCOMPARE(right->statusText(), QStringLiteral("12 chunks from 12 files"));
    left->search(QStringLiteral("left side"), SearchMode::Text);
    right->search(QStringLiteral("left side"), SearchMode::Text);
    QTRY_COMPARE(left->results().size(), 10);
    QVERIFY(left->hasMoreResults());
    QTRY_VERIFY(!right->isSearching());
    QVERIFY(right->results().isEmpty());
}

QTEST_GUILESS_MAIN(TestAppState)
#include "app_state_test.moc"

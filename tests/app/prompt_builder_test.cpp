/*
** The prompt text, byte for byte, for each scope.
*/
#include "prompt_builder.h"

#include <QtTest>

class TestPromptBuilder : public QObject
{
    Q_OBJECT

private slots:
    void headerPath_data();
    void headerPath();
    void exampleFromTheHelp();
    void scopeSelectsResults_data();
    void scopeSelectsResults();
    void emptySelectionGivesTheMessage();
};

static SearchResult result(const QString &path, int line, const QString &snippet)
{
    SearchResult r;
    r.id = path + QStringLiteral(":0");
    r.filePath = path;
    r.lineNumber = line;
    r.snippet = snippet;
    return r;
}

static const char kOpening[] = "Based on the following excerpts from my documents, answer my "
                               "question.\n\n--- Context ---\n\n";

void TestPromptBuilder::headerPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("header");
    QTest::newRow("absolute") << "/a/b/c.txt"
                              << "b/c.txt";
    QTest::newRow("single component") << "c.txt"
                                      << "c.txt";
    QTest::newRow("root file") << "/c.txt"
                               << "/c.txt";
    QTest::newRow("relative pair") << "b/c.txt"
                                   << "b/c.txt";
    QTest::newRow("empty") << ""
                           << "";
}

void TestPromptBuilder::headerPath()
{
    QFETCH(QString, path);
    QTEST(promptHeaderPath(path), "header");
}

void TestPromptBuilder::exampleFromTheHelp()
{
    const QList<SearchResult> shown = {
        result(QStringLiteral("/Users/x/notes/list.txt"), 12, QStringLiteral("  buy milk\n"))};
    const QString expected = QString::fromLatin1(kOpening)
                             + QStringLiteral("[notes/list.txt, line 12]\nbuy milk\n\n"
                                              "--- Question ---\n\nwhat to buy?\n");
    QCOMPARE(buildPrompt(QStringLiteral("what to buy?"), PromptScope::Top5, shown, {}), expected);
}

void TestPromptBuilder::scopeSelectsResults_data()
{
    QTest::addColumn<int>("scope");
    QTest::addColumn<int>("shownCount");
    QTest::addColumn<QString>("expected");

    auto block = [](int i) {
        return QStringLiteral("[d/f%1.txt, line %1]\nsnippet %1\n\n").arg(i);
    };
    const QString question = QStringLiteral("--- Question ---\n\n(your question here)\n");
    const QString opening = QString::fromLatin1(kOpening);

    QString twelveTop = opening;
    for (int i = 0; i < 5; i++) {
        twelveTop += block(i);
    }
    QString threeAll = opening + block(0) + block(1) + block(2);
    QString twelveAll = opening;
    for (int i = 0; i < 12; i++) {
        twelveAll += block(i);
    }
    QTest::newRow("top 5 of 3 takes all 3") << int(PromptScope::Top5) << 3 << threeAll + question;
    QTest::newRow("top 5 of 12 takes the first 5")
        << int(PromptScope::Top5) << 12 << twelveTop + question;
    QTest::newRow("all visible of 12")
        << int(PromptScope::AllVisible) << 12 << twelveAll + question;
    QTest::newRow("pinned uses the pins only")
        << int(PromptScope::Pinned) << 12
        << opening + QStringLiteral("[p/pin.txt, line 3]\n\n\n") + question;
}

void TestPromptBuilder::scopeSelectsResults()
{
    QFETCH(int, scope);
    QFETCH(int, shownCount);
    QList<SearchResult> shown;
    for (int i = 0; i < shownCount; i++) {
        shown.append(result(QStringLiteral("/root/d/f%1.txt").arg(i),
                            i,
                            QStringLiteral("\n snippet %1 \t\n").arg(i)));
    }
    // A whitespace-only snippet leaves an empty line between its header and the blank line.
    const QList<SearchResult> pinned = {
        result(QStringLiteral("/p/pin.txt"), 3, QStringLiteral(" \n "))};
    QTEST(buildPrompt(QString(), PromptScope(scope), shown, pinned), "expected");
}

void TestPromptBuilder::emptySelectionGivesTheMessage()
{
    const QList<SearchResult> shown = {result(QStringLiteral("/a/b.txt"), 1, QStringLiteral("x"))};
    QCOMPARE(buildPrompt(QStringLiteral("q"), PromptScope::Pinned, shown, {}),
             QStringLiteral("No results to include in prompt."));
    QCOMPARE(buildPrompt(QStringLiteral("q"), PromptScope::Top5, {}, {}),
             QStringLiteral("No results to include in prompt."));
}

QTEST_GUILESS_MAIN(TestPromptBuilder)
#include "prompt_builder_test.moc"

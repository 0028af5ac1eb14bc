/*
** Opening a result in another program: editor commands split into argument lists, and the
** fall-backs to the default application when an editor or viewer does not start.
*/
#include "result_opener.h"

#include "settings.h"

#include "test_support.h"

#include <QtTest>

class TestResultOpener : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_env = std::make_unique<IsolatedEnvironment>(); }
    void init()
    {
        setDesktopServices({});
        m_env->settings()->remove(QStringLiteral("openTextFilesWith"));
        m_env->settings()->remove(QStringLiteral("editorCommand"));
    }
    void everyPresetKeepsTheFileWhole();
    void editorArguments_data();
    void editorArguments();
    void openResult_data();
    void openResult();

private:
    std::unique_ptr<IsolatedEnvironment> m_env;
};

// Whatever each preset's arguments are, an awkward file name stays one argument and the line
// number is passed.
void TestResultOpener::everyPresetKeepsTheFileWhole()
{
    const QString awkward = QStringLiteral("/home/a b/it's \"q\" $HOME;rm.txt");
    for (const EditorPreset &preset : editorPresets()) {
        if (preset.command.isEmpty()) {
            continue;
        }
        const std::optional<QStringList> arguments = ::editorArguments(preset.command, awkward, 42);
        QVERIFY2(arguments, qPrintable(preset.key));
        QVERIFY2(arguments->contains(awkward)
                     || arguments->contains(awkward + QStringLiteral(":42")),
                 qPrintable(arguments->join(QLatin1Char('|'))));
        QVERIFY2(arguments->join(QLatin1Char(' ')).contains(QStringLiteral("42")),
                 qPrintable(preset.key));
    }
}

void TestResultOpener::editorArguments_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("expected");
    const QString plain = QStringLiteral("/src/main.c");
    const QString awkward = QStringLiteral("/home/a b/it's \"q\" $HOME;rm.txt");
    QTest::newRow("custom, quoted program and arguments")
        << R"('/opt/my editor/bin/ed' --goto "{file}:{line}" -t 'a b')" << awkward
        << QStringList{"/opt/my editor/bin/ed", "--goto", awkward + ":42", "-t", "a b"};
    QTest::newRow("custom, escapes inside and outside quotes")
        << R"(ed\ it "say \"{line}\"" \$x)" << plain
        << QStringList{"ed it", "say \"42\"", "$x", plain};
    QTest::newRow("custom without {file} gets the file last")
        << "subl -w" << plain << QStringList{"subl", "-w", plain};
    QTest::newRow("a path holding {line} keeps it")
        << "ed {file}"
        << "/x/{line}.txt" << QStringList{"ed", "/x/{line}.txt"};
    QTest::newRow("unclosed quote") << "ed '{file}" << plain << QStringList();
    QTest::newRow("blank") << "   " << plain << QStringList();
}

// The command becomes an argument list split before the file is put in, so no file name can
// split an argument or reach a shell.
void TestResultOpener::editorArguments()
{
    QFETCH(QString, command);
    QFETCH(QString, file);
    QFETCH(QStringList, expected);
    const std::optional<QStringList> arguments = ::editorArguments(command, file, 42);
    if (expected.isEmpty()) {
        QVERIFY(!arguments);
    } else {
        QVERIFY(arguments);
        QCOMPARE(*arguments, expected);
    }
}

void TestResultOpener::openResult_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("choice");
    QTest::addColumn<bool>("linkHandler");     // an application handles vorn:// links
    QTest::addColumn<bool>("startWorks");      // the editor program starts
    QTest::addColumn<QStringList>("expected"); // what was started or opened, in order
    QTest::addColumn<QString>("message");      // the status text; "" when it opened as asked

    QTest::newRow("system default with a link handler: the editor link")
        << "/src/main.c"
        << "system" << true << true << QStringList{"url vorn://open?file=/src/main.c&line=42"}
        << "";
    QTest::newRow("system default, query characters kept, others encoded")
        << "/x/R&D #1.txt"
        << "system" << true << true << QStringList{"url vorn://open?file=/x/R&D%20%231.txt&line=42"}
        << "";
    QTest::newRow("system default without a handler: the file, never the link")
        << "/notes/a b.md"
        << "system" << false << true << QStringList{"url file:///notes/a%20b.md"} << "";
    QTest::newRow("preset starts the editor at the line")
        << "/src/util.py"
        << "kate" << false << true << QStringList{"start kate -l 42 /src/util.py"} << "";
    QTest::newRow("missing editor falls back to the file and says so")
        << "/src/util.py"
        << "code" << false << false
        << QStringList{"start code -g /src/util.py:42", "url file:///src/util.py"}
        << "Could not start \"code\"; opened util.py with the default application";
    QTest::newRow("html opens in the browser")
        << "/site/index.html"
        << "kate" << true << true << QStringList{"url file:///site/index.html"} << "";
    QTest::newRow("pdf opens in a viewer that takes the page")
        << "/docs/paper.pdf"
        << "system" << false << true << QStringList{"start evince -i 1 /docs/paper.pdf"} << "";
    QTest::newRow("extra extension opens with the default application")
        << "/cfg/app.plist"
        << "gedit" << true << true << QStringList{"url file:///cfg/app.plist"} << "";
}

void TestResultOpener::openResult()
{
    QFETCH(QString, path);
    QFETCH(QString, choice);
    QFETCH(bool, linkHandler);
    QFETCH(bool, startWorks);
    QFETCH(QStringList, expected);
    QFETCH(QString, message);
    QStringList calls;
    DesktopServices desktop;
    desktop.openUrl = [&calls](const QUrl &url) {
        calls.append(QStringLiteral("url ") + QString::fromUtf8(url.toEncoded()));
        return true;
    };
    desktop.startDetached = [&calls, startWorks](const QString &program, const QStringList &args) {
        calls.append(QStringLiteral("start ") + program + QLatin1Char(' ') + args.join(' '));
        return startWorks;
    };
    desktop.defaultApplication = [linkHandler](const QString &mimeType) {
        if (mimeType == QLatin1String("application/pdf")) {
            return QStringLiteral("org.gnome.Evince.desktop");
        }
        return linkHandler ? QStringLiteral("vorn-editor.desktop") : QString();
    };
    setDesktopServices(desktop);
    m_env->settings()->setOpenTextFilesWith(choice);
    SearchResult result;
    result.filePath = path;
    result.lineNumber = 42;
    const OpenOutcome outcome = ::openResult(result, *m_env->settings());
    QCOMPARE(calls, expected);
    QVERIFY(outcome.opened);
    QCOMPARE(outcome.message, message);

    calls.clear();
    ::openResult(SearchResult(), *m_env->settings());
    QVERIFY(calls.isEmpty());

    // Nothing opens at all: the status text says so.
    desktop.openUrl = [](const QUrl &) {
        return false;
    };
    desktop.startDetached = [](const QString &, const QStringList &) {
        return false;
    };
    setDesktopServices(desktop);
    const OpenOutcome failed = ::openResult(result, *m_env->settings());
    QVERIFY(!failed.opened);
    QVERIFY2(failed.message.contains(QStringLiteral("could not open"), Qt::CaseInsensitive),
             qPrintable(failed.message));
}

QTEST_MAIN(TestResultOpener)
#include "result_opener_test.moc"

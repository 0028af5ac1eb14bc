/*
** preview_test.cpp -- the context panel (title, gutter, shaded chunk, marks, scrolling), the hover
** rule that opens previews, and the PDF, HTML and Markdown panels.
*/
#include "main_window.h"
#include "preview_panels.h"
#include "results_model.h"
#include "results_view.h"
#include "ui_test_support.h"

#include <QAbstractTextDocumentLayout>
#include <QPdfView>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>

#include <memory>

namespace
{

// The text ranges of one document line that carry a background colour.
struct LineLook {
    bool chunkShaded = false; // the line's text is on the chunk colour
    QStringList marked;       // the marked pieces, in order
};

LineLook lookOfLine(QTextEdit *view, int line)
{
    LineLook look;
    const QTextBlock block = view->document()->findBlockByNumber(line);
    int markEnd = -1; // where the last marked fragment ended; adjacent ones form one mark
    for (auto it = block.begin(); !it.atEnd(); ++it) {
        const QTextFragment fragment = it.fragment();
        const QBrush background = fragment.charFormat().background();
        if (background.style() == Qt::NoBrush) {
            continue;
        }
        if (background.color() == ContextPanel::matchColor()) {
            if (fragment.position() == markEnd) {
                look.marked.last() += fragment.text();
            } else {
                look.marked.append(fragment.text());
            }
            markEnd = fragment.position() + fragment.length();
        } else if (background.color() == ContextPanel::chunkColor()) {
            look.chunkShaded = true;
        }
    }
    return look;
}

QList<int> shadedLines(QTextEdit *view)
{
    QList<int> lines;
    for (int i = 0; i < view->document()->blockCount(); ++i) {
        if (lookOfLine(view, i).chunkShaded) {
            lines.append(i + 1);
        }
    }
    return lines;
}

QStringList allMarks(QTextEdit *view)
{
    QStringList marks;
    for (int i = 0; i < view->document()->blockCount(); ++i) {
        marks += lookOfLine(view, i).marked;
    }
    return marks;
}

bool contextPanelVisible()
{
    return ContextPanel::existing() && ContextPanel::existing()->isVisible();
}

} // namespace

class PreviewTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        QVERIFY(m_files.isValid());
        QVERIFY(writeFile(m_files.path(), QStringLiteral("three.txt"), "alpha\nbeta\ngamma"));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("ten.txt"), numberedLines(10)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("fifty.txt"), numberedLines(50)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("long.txt"), numberedLines(300)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("latin1.txt"), "caf\xe9 au lait\n"));
    }
    void init()
    {
        Settings::standard()->setChunkSize(800);
        Settings::standard()->setHoverPreview(true);
        if (ContextPanel::existing()) {
            ContextPanel::existing()->hide();
        }
    }

    void titleNamesFileLineAndMode()
    {
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(m_files.filePath(QStringLiteral("ten.txt")),
                                4,
                                QStringLiteral("line"),
                                SearchMode::Regex));
        QCOMPARE(panel->windowTitle(), QStringLiteral("ten.txt \u2014 line 4 (regex)"));
        QVERIFY(panel->isVisible());
        // Monospaced text with a right-aligned gutter two digits wide.
        QVERIFY(QFontInfo(panel->textView()->document()->defaultFont()).fixedPitch());
        QCOMPARE(panel->textView()->document()->findBlockByNumber(0).text(),
                 QStringLiteral(" 1  line 1"));
        QCOMPARE(panel->textView()->document()->findBlockByNumber(9).text(),
                 QStringLiteral("10  line 10"));
    }

    void shadingCoversAboutOneChunkFromTheHit_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<int>("line");
        QTest::addColumn<int>("chunkSize");
        QTest::addColumn<QList<int>>("shaded");
        QTest::newRow("short file, first line") << "three.txt" << 1 << 800 << QList<int>{1, 2, 3};
        QTest::newRow("line beyond the end") << "ten.txt" << 40 << 800 << QList<int>{10};
        QTest::newRow("line 0 counts as the first")
            << "three.txt" << 0 << 800 << QList<int>{1, 2, 3};
        // "line 5\n" .. are 7 characters each: 7 + 7 + 7 reach 20 at the third line.
        QTest::newRow("chunk of 20 characters") << "ten.txt" << 5 << 20 << QList<int>{5, 6, 7};
        QTest::newRow("unset chunk size reads as 800") << "three.txt" << 2 << 0 << QList<int>{2, 3};
    }
    void shadingCoversAboutOneChunkFromTheHit()
    {
        QFETCH(QString, file);
        QFETCH(int, line);
        QFETCH(int, chunkSize);
        QFETCH(QList<int>, shaded);
        // Planted as stored: the shading follows the stored value, which the setters would not
        // take below 64.
        Settings::standard()->setValue(QStringLiteral("chunkSize"), chunkSize);
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(m_files.filePath(file), line, QString(), SearchMode::Semantic));
        QCOMPARE(shadedLines(panel->textView()), shaded);
        QVERIFY(allMarks(panel->textView()).isEmpty());
    }

    void queryMatchesAreMarked_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QStringList>("marks");
        // The gutter is part of the text: "42" marks the number of line 42 as well.
        QTest::newRow("text marks gutter numbers")
            << "42" << int(SearchMode::Text) << QStringList{"42", "42"};
        QTest::newRow("text ignores case")
            << "LINE 7" << int(SearchMode::Text) << QStringList{"line 7"};
        QTest::newRow("regex, case-insensitive")
            << "4[5-6]  LINE" << int(SearchMode::Regex) << QStringList{"45  line", "46  line"};
        // Without multi-line mode "^" anchors at the start of the whole text only.
        QTest::newRow("regex anchor") << "^ ?4[5-6]" << int(SearchMode::Regex) << QStringList{};
        QTest::newRow("regex that does not compile")
            << "(" << int(SearchMode::Regex) << QStringList{};
        QTest::newRow("semantic marks nothing")
            << "line" << int(SearchMode::Semantic) << QStringList{};
    }
    void queryMatchesAreMarked()
    {
        QFETCH(QString, query);
        QFETCH(int, mode);
        QFETCH(QStringList, marks);
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(m_files.filePath(QStringLiteral("fifty.txt")),
                                1,
                                query,
                                static_cast<SearchMode>(mode)));
        QCOMPARE(allMarks(panel->textView()), marks);
        QCOMPARE(panel->textView()->document()->blockCount(), 50); // the file is shown all the same
    }

    void wordModesMarkWordsAndIdentifierParts_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("keyword") << int(SearchMode::Keyword);
        QTest::newRow("hybrid") << int(SearchMode::Hybrid);
    }
    void wordModesMarkWordsAndIdentifierParts()
    {
        QFETCH(int, mode);
        QVERIFY(writeFile(m_files.path(),
                          QStringLiteral("idents.txt"),
                          "readFileSync(p)\nread_file = 1\nspread the profile\nREAD FILES\n"));
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(m_files.filePath(QStringLiteral("idents.txt")),
                                1,
                                QStringLiteral("Read file"),
                                static_cast<SearchMode>(mode)));
        // Parts of identifiers count, words inside other words ("spread", "FILES") do not.
        QCOMPARE(allMarks(panel->textView()), (QStringList{"readFile", "read", "file", "READ"}));
    }

    void textMatchesDoNotOverlap()
    {
        QVERIFY(writeFile(m_files.path(), QStringLiteral("aaa.txt"), "aaaaa"));
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(m_files.filePath(QStringLiteral("aaa.txt")),
                                1,
                                QStringLiteral("aa"),
                                SearchMode::Text));
        // "1  aaaaa": two matches, "aa" and "aa", and the last "a" stays unmarked.
        // Overlapping matches would mark all five letters.
        QCOMPARE(allMarks(panel->textView()), (QStringList{"aaaa"}));
    }

    void unreadableOrNonUtf8FilesShowNothing()
    {
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(
            m_files.filePath(QStringLiteral("three.txt")), 1, QString(), SearchMode::Semantic));
        panel->hide();
        const QString title = panel->windowTitle();
        QVERIFY(!panel->showFile(
            m_files.filePath(QStringLiteral("latin1.txt")), 1, QString(), SearchMode::Semantic));
        QVERIFY(!panel->showFile(
            m_files.filePath(QStringLiteral("missing.txt")), 1, QString(), SearchMode::Semantic));
        QVERIFY(!panel->showFile(QString(), 1, QString(), SearchMode::Semantic));
        QVERIFY(!panel->isVisible());
        QCOMPARE(panel->windowTitle(), title);
    }

    void hitIsScrolledToAThirdOfTheHeight()
    {
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(
            m_files.filePath(QStringLiteral("long.txt")), 150, QString(), SearchMode::Semantic));
        QTextEdit *view = panel->textView();
        const QTextBlock hit = view->document()->findBlockByNumber(149);
        // The scroll happens on the next turn of the event loop.
        QTRY_VERIFY(view->verticalScrollBar()->value() > 0);
        QTextCursor cursor(hit);
        const int top = view->cursorRect(cursor).top();
        const int third = view->viewport()->height() / 3;
        QVERIFY2(qAbs(top - third) <= view->fontMetrics().lineSpacing(),
                 qPrintable(QStringLiteral("hit at %1, a third is %2").arg(top).arg(third)));

        QVERIFY(panel->showFile(
            m_files.filePath(QStringLiteral("long.txt")), 1, QString(), SearchMode::Semantic));
        QTRY_COMPARE(view->verticalScrollBar()->value(), 0);
    }

    void hoverOpensThePreviewOnlyAfterTheDelay()
    {
        auto w = openAppWindow();
        AppState *app = &w->app;
        MainWindow &window = w->window;
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.path(),
                          QStringLiteral("notes.txt"),
                          "The quick brown fox jumps over the lazy dog.\n"));
        QVERIFY(writeFile(
            dir.path(), QStringLiteral("other.txt"), "Nothing to see here, only filler text.\n"));
        app->addTab(dir.path());
        DirectoryState *state = app->activeState();
        QVERIFY(QTest::qWaitFor(
            [state] {
                return !state->isIngesting();
            },
            60000));
        QSignalSpy finished(state, &DirectoryState::searchFinished);
        state->search(QStringLiteral("fox"), SearchMode::Text);
        QVERIFY(finished.wait(30000));
        ResultsView *view = window.resultsView();
        view->doItemsLayout();
        QCOMPARE(view->model()->rowCount(), 1);
        const QPoint onRow = view->visualRect(view->model()->index(0, 0)).center();
        const QPoint offRows(onRow.x(), view->viewport()->height() - 4);

        // A quick pass: in and out again within 0.6 s opens nothing.
        sendMouse(view->viewport(), QEvent::MouseMove, onRow, Qt::NoButton, Qt::NoButton);
        QVERIFY(view->isHoverPending());
        QTest::qWait(250);
        sendMouse(view->viewport(), QEvent::MouseMove, offRows, Qt::NoButton, Qt::NoButton);
        QVERIFY(!view->isHoverPending());
        QTest::qWait(500);
        QVERIFY(!contextPanelVisible());

        // Resting on the row opens the context panel on the hit, in the search's mode.
        sendMouse(view->viewport(), QEvent::MouseMove, onRow, Qt::NoButton, Qt::NoButton);
        QTest::qWait(300);
        QVERIFY(!contextPanelVisible());
        QTRY_VERIFY_WITH_TIMEOUT(contextPanelVisible(), 2000);
        QCOMPARE(ContextPanel::existing()->windowTitle(),
                 QStringLiteral("notes.txt \u2014 line 1 (text)"));
        QCOMPARE(allMarks(ContextPanel::existing()->textView()), QStringList{"fox"});
        ContextPanel::existing()->hide();

        // With "hoverPreview" off nothing opens, however long the pointer rests.
        sendMouse(view->viewport(), QEvent::MouseMove, offRows, Qt::NoButton, Qt::NoButton);
        Settings::standard()->setHoverPreview(false);
        sendMouse(view->viewport(), QEvent::MouseMove, onRow, Qt::NoButton, Qt::NoButton);
        QVERIFY(!view->isHoverPending());
        QTest::qWait(800);
        QVERIFY(!contextPanelVisible());
    }

    void pdfResultsOpenThePdfPanelAtTheirPage()
    {
        const QString pdf = QStringLiteral(TRN_SOURCE_DIR "/samples/tide-table.pdf");
        QVERIFY(QFileInfo::exists(pdf));
        SearchResult hit;
        hit.filePath = pdf;
        hit.lineNumber = 1;
        previewResult(hit, QString(), SearchMode::Semantic);
        PdfPanel *panel = PdfPanel::existing();
        QVERIFY(panel);
        QVERIFY(panel->isVisible());
        QCOMPARE(panel->currentPage(), 1);
        QCOMPARE(panel->windowTitle(), QStringLiteral("tide-table.pdf \u2014 page 1"));
        panel->hide();

        // A file named .pdf that is no PDF cannot be mapped to a page; the panel stays shut.
        QVERIFY(writeFile(m_files.path(), QStringLiteral("fake.pdf"), "not a pdf at all\n"));
        hit.filePath = m_files.filePath(QStringLiteral("fake.pdf"));
        previewResult(hit, QString(), SearchMode::Semantic);
        QVERIFY(!panel->isVisible());
    }

    void htmlAndMarkdownResultsOpenRendered()
    {
        QVERIFY(
            writeFile(m_files.path(),
                      QStringLiteral("page.html"),
                      "<html><body><h1>Ridge trail</h1><p>Eleven kilometres.</p></body></html>"));
        QVERIFY(writeFile(m_files.path(),
                          QStringLiteral("notes.md"),
                          "# Sourdough\n\nFeed the **starter** weekly.\n"));
        SearchResult hit;
        hit.filePath = m_files.filePath(QStringLiteral("page.html"));
        previewResult(hit, QString(), SearchMode::Semantic);
        DocumentPanel *html = DocumentPanel::existing(DocumentPanel::Kind::Html);
        QVERIFY(html && html->isVisible());
        QCOMPARE(html->browser()->toPlainText().trimmed(),
                 QStringLiteral("Ridge trail\nEleven kilometres."));

        hit.filePath = m_files.filePath(QStringLiteral("notes.md"));
        previewResult(hit, QString(), SearchMode::Semantic);
        DocumentPanel *markdown = DocumentPanel::existing(DocumentPanel::Kind::Markdown);
        QVERIFY(markdown && markdown->isVisible());
        QVERIFY(markdown != html);
        // Rendered, not shown as source: no "#" or "**" left.
        QCOMPARE(markdown->browser()->toPlainText().trimmed(),
                 QStringLiteral("Sourdough\nFeed the starter weekly."));
        QVERIFY(!contextPanelVisible());
    }

    // The rendered document opens at the hit's source line, not at its top.
    void htmlAndMarkdownPreviewsScrollToTheHit_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("lineFormat"); // %1: the line's number
        QTest::newRow("markdown") << "long.md" << int(DocumentPanel::Kind::Markdown)
                                  << QByteArray("- item **%1** of the list\n\n");
        QTest::newRow("html") << "long.html" << int(DocumentPanel::Kind::Html)
                              << QByteArray("<p>paragraph <b>%1</b> &amp; more</p>\n");
    }
    void htmlAndMarkdownPreviewsScrollToTheHit()
    {
        QFETCH(QString, name);
        QFETCH(int, kind);
        QFETCH(QByteArray, lineFormat);
        QByteArray text;
        int hitLine = 0;
        for (int i = 1; i <= 300; i++) {
            const int line = int(text.count('\n')) + 1;
            if (i == 240) {
                hitLine = line;
            }
            text += QString::fromLatin1(lineFormat).arg(i).toUtf8();
        }
        QVERIFY(writeFile(m_files.path(), name, text));
        SearchResult hit;
        hit.filePath = m_files.filePath(name);
        hit.lineNumber = hitLine;
        previewResult(hit, QString(), SearchMode::Semantic);
        DocumentPanel *panel = DocumentPanel::existing(DocumentPanel::Kind(kind));
        QVERIFY(panel && panel->isVisible());
        QTRY_COMPARE(panel->hitLine(), hitLine);
        QScrollBar *bar = panel->browser()->verticalScrollBar();
        QVERIFY(bar->value() > bar->maximum() / 2);
        // The hit's paragraph is on screen.
        const QTextCursor cursor = panel->browser()->document()->find(QStringLiteral("240"));
        QVERIFY(!cursor.isNull());
        const QRect shown = panel->browser()->cursorRect(cursor);
        QVERIFY(panel->browser()->viewport()->rect().contains(shown.center()));
    }

    void panelsRememberTheirFrames()
    {
        ContextPanel *panel = ContextPanel::shared();
        QVERIFY(panel->showFile(
            m_files.filePath(QStringLiteral("three.txt")), 1, QString(), SearchMode::Semantic));
        panel->resize(555, 333);
        panel->hide(); // hiding saves the frame
        const QByteArray saved =
            Settings::standard()->value(QStringLiteral("TarnwickContextPanel")).toByteArray();
        QVERIFY(!saved.isEmpty());
        QWidget probe;
        QVERIFY(probe.restoreGeometry(saved));
        QCOMPARE(probe.size(), QSize(555, 333));
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
    QTemporaryDir m_files;
};

QTEST_MAIN(PreviewTest)
#include "preview_test.moc"

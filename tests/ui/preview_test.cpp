/*
** preview_test.cpp -- the preview pane: text with its gutter, the hit's band and the marks,
** scrolling to the hit, files it cannot show, rendered HTML and Markdown, PDF pages, and the pane
** in the main window following the selection and the pointer.
*/
#include "main_window.h"
#include "pdf_page_view.h"
#include "preview_pane.h"
#include "results_model.h"
#include "results_view.h"
#include "ui_test_support.h"

#include <QAbstractTextDocumentLayout>
#include <QScrollBar>
#include <QSplitter>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>

#include <memory>

namespace
{

// The pieces of the text view that carry the match colour, adjacent ones joined.
QStringList marksOf(QTextEdit *view)
{
    QStringList marks;
    int markEnd = -1;
    for (QTextBlock block = view->document()->begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            if (fragment.charFormat().background().color() != PreviewPane::matchColor()) {
                continue;
            }
            if (fragment.position() == markEnd) {
                marks.last() += fragment.text();
            } else {
                marks.append(fragment.text());
            }
            markEnd = fragment.position() + fragment.length();
        }
    }
    return marks;
}

// The blocks (0-based) on the band, and the marked texts, of a view's extra selections.
QList<int> bandedBlocks(QTextEdit *view)
{
    QList<int> blocks;
    for (const QTextEdit::ExtraSelection &s : view->extraSelections()) {
        if (s.format.background().color() == PreviewPane::bandColor()) {
            blocks.append(s.cursor.blockNumber());
        }
    }
    return blocks;
}

QStringList selectedMarks(QTextEdit *view)
{
    QStringList marks;
    for (const QTextEdit::ExtraSelection &s : view->extraSelections()) {
        if (s.format.background().color() == PreviewPane::matchColor()) {
            marks.append(s.cursor.selectedText());
        }
    }
    return marks;
}

// The top of block in the view's viewport.
int topOf(QTextEdit *view, const QTextBlock &block)
{
    return view->cursorRect(QTextCursor(block)).top();
}

SearchResult hitIn(const QString &path, int line, const QString &snippet = QString())
{
    SearchResult hit;
    hit.id = path + QStringLiteral(":0");
    hit.filePath = path;
    hit.lineNumber = line;
    hit.snippet = snippet;
    return hit;
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
        QVERIFY(writeFile(m_files.path(), QStringLiteral("ten.txt"), numberedLines(10)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("fifty.txt"), numberedLines(50)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("long.txt"), numberedLines(300)));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("huge.txt"), numberedLines(10000)));
        QVERIFY(writeFile(m_files.path(),
                          QStringLiteral("latin1.txt"),
                          "caf\xe9 \x93"
                          "au lait\x94\n"));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("tool.bin"), QByteArray("ab\0cd", 5)));
        m_pane = std::make_unique<PreviewPane>();
        m_pane->setDirectory(m_files.path());
        m_pane->resize(520, 420);
        m_pane->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_pane.get()));
    }
    void init() { m_home->settings()->setHoverPreview(true); }

    void textShowsTheFileWithItsLineNumbersAndTheHitOnTheBand()
    {
        m_pane->showResult(
            hitIn(m_files.filePath(QStringLiteral("ten.txt")), 4), QString(), SearchMode::Semantic);
        QCOMPARE(m_pane->content(), PreviewPane::Content::Text);
        QCOMPARE(m_pane->title(), QStringLiteral("ten.txt"));
        QCOMPARE(m_pane->location(), QStringLiteral("line 4"));
        QTextEdit *view = m_pane->textView();
        QCOMPARE(view->document()->blockCount(), 10);
        // A gutter two digits wide, right-aligned.
        QCOMPARE(view->document()->findBlockByNumber(0).text(), QStringLiteral(" 1  line 1"));
        QCOMPARE(view->document()->findBlockByNumber(9).text(), QStringLiteral("10  line 10"));
        QCOMPARE(bandedBlocks(view), QList<int>{3});
        QVERIFY(marksOf(view).isEmpty()); // semantic: nothing to mark

        // A line beyond the end bands the last line.
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("ten.txt")), 40),
                           QString(),
                           SearchMode::Semantic);
        QCOMPARE(bandedBlocks(view), QList<int>{9});
    }

    void queryMatchesAreMarkedInTheTextNotTheGutter_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QStringList>("marks");
        QTest::newRow("text, only the line's own digits")
            << "42" << int(SearchMode::Text) << QStringList{"42"};
        QTest::newRow("text ignores case")
            << "LINE 7" << int(SearchMode::Text) << QStringList{"line 7"};
        QTest::newRow("regex, case-insensitive")
            << "LINE 4[5-6]" << int(SearchMode::Regex) << QStringList{"line 45", "line 46"};
        QTest::newRow("regex anchored at each line's start")
            << "^line 1$" << int(SearchMode::Regex) << QStringList{"line 1"};
        QTest::newRow("regex that does not compile")
            << "(" << int(SearchMode::Regex) << QStringList{};
        QTest::newRow("semantic marks nothing")
            << "line" << int(SearchMode::Semantic) << QStringList{};
    }
    void queryMatchesAreMarkedInTheTextNotTheGutter()
    {
        QFETCH(QString, query);
        QFETCH(int, mode);
        QFETCH(QStringList, marks);
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("fifty.txt")), 1),
                           query,
                           static_cast<SearchMode>(mode));
        QCOMPARE(marksOf(m_pane->textView()), marks);
        QCOMPARE(m_pane->textView()->document()->blockCount(), 50); // the file is shown whole
    }

    void wordModesMarkWordsAndIdentifierParts()
    {
        QVERIFY(writeFile(m_files.path(),
                          QStringLiteral("idents.txt"),
                          "readFileSync(p)\nread_file = 1\nspread the profile\nREAD FILES\n"));
        for (SearchMode mode : {SearchMode::Keyword, SearchMode::Hybrid}) {
            // Parts of identifiers count and so do other forms of a word ("FILES", "reading"),
            // words inside other words ("spread", "profile") do not, and a common word is marked
            // only when the query holds nothing else.
            for (const char *query : {"Read file", "reading the files"}) {
                m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("idents.txt")), 1),
                                   QString::fromLatin1(query),
                                   mode);
                QCOMPARE(marksOf(m_pane->textView()),
                         (QStringList{"readFile", "read", "file", "READ", "FILES"}));
            }
            m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("idents.txt")), 1),
                               QStringLiteral("the"),
                               mode);
            QCOMPARE(marksOf(m_pane->textView()), QStringList{"the"});
        }
    }

    void theHitIsScrolledToAThirdOfTheHeight()
    {
        QTextEdit *view = m_pane->textView();
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("long.txt")), 150),
                           QString(),
                           SearchMode::Semantic);
        QTRY_VERIFY(view->verticalScrollBar()->value() > 0);
        const int third = view->viewport()->height() / 3;
        QVERIFY2(qAbs(topOf(view, m_pane->hitBlock()) - third) <= view->fontMetrics().lineSpacing(),
                 qPrintable(QStringLiteral("hit at %1, a third is %2")
                                .arg(topOf(view, m_pane->hitBlock()))
                                .arg(third)));

        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("long.txt")), 1),
                           QString(),
                           SearchMode::Semantic);
        QTRY_COMPARE(view->verticalScrollBar()->value(), 0);
    }

    void aLongFileShowsTheLinesAroundTheHitWithTheirNumbers()
    {
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("huge.txt")), 9000),
                           QStringLiteral("line 9000"),
                           SearchMode::Text);
        QTextDocument *doc = m_pane->textView()->document();
        QCOMPARE(doc->blockCount(), PreviewPane::kMaxLines);
        // The window ends at the file's end: lines 6001 to 10000.
        QCOMPARE(doc->firstBlock().text(), QStringLiteral(" 6001  line 6001"));
        QCOMPARE(doc->lastBlock().text(), QStringLiteral("10000  line 10000"));
        QCOMPARE(m_pane->hitBlock().text(), QStringLiteral(" 9000  line 9000"));
        QCOMPARE(marksOf(m_pane->textView()), QStringList{"line 9000"});
        // Drawn again over the band, which would hide it.
        QCOMPARE(selectedMarks(m_pane->textView()), QStringList{"line 9000"});
    }

    void filesItCannotShowSayWhyAndNeverShowThePreviousFile_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("reason");
        QTest::newRow("missing") << "gone.txt"
                                 << "no longer there";
        QTest::newRow("binary") << "tool.bin"
                                << "not text";
        QTest::newRow("pdf that is not one") << "fake.pdf"
                                             << "cannot be read as a PDF";
        QTest::newRow("office file that is not one") << "fake.docx"
                                                     << "cannot be read";
    }
    void filesItCannotShowSayWhyAndNeverShowThePreviousFile()
    {
        QFETCH(QString, name);
        QFETCH(QString, reason);
        QVERIFY(writeFile(m_files.path(), QStringLiteral("fake.pdf"), "not a pdf at all\n"));
        QVERIFY(writeFile(m_files.path(), QStringLiteral("fake.docx"), "not a zip at all\n"));
        m_pane->showResult(
            hitIn(m_files.filePath(QStringLiteral("ten.txt")), 1), QString(), SearchMode::Semantic);
        m_pane->showResult(hitIn(m_files.filePath(name), 3), QString(), SearchMode::Semantic);
        QCOMPARE(m_pane->content(), PreviewPane::Content::Message);
        QCOMPARE(m_pane->title(), name);
        QVERIFY2(m_pane->message().contains(reason), qPrintable(m_pane->message()));
    }

    void legacyTextIsReadAsWindows1252()
    {
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("latin1.txt")), 1),
                           QStringLiteral("café"),
                           SearchMode::Text);
        QCOMPARE(m_pane->content(), PreviewPane::Content::Text);
        QCOMPARE(m_pane->textView()->document()->firstBlock().text(),
                 QStringLiteral("1  café \u201cau lait\u201d"));
        QCOMPARE(marksOf(m_pane->textView()), QStringList{"café"});
    }

    void htmlAndMarkdownAreRendered()
    {
        QVERIFY(writeFile(
            m_files.path(),
            QStringLiteral("page.html"),
            "<html><body><h1>Ridge trail</h1><p>Eleven kilometres of ridge.</p></body></html>"));
        QVERIFY(writeFile(m_files.path(),
                          QStringLiteral("notes.md"),
                          "# Sourdough\n\nFeed the **starter** weekly.\n"));
        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("page.html")), 1),
                           QStringLiteral("ridge"),
                           SearchMode::Keyword);
        QCOMPARE(m_pane->content(), PreviewPane::Content::Document);
        QCOMPARE(m_pane->documentView()->toPlainText().trimmed(),
                 QStringLiteral("Ridge trail\nEleven kilometres of ridge."));
        QCOMPARE(selectedMarks(m_pane->documentView()), (QStringList{"Ridge", "ridge"}));

        m_pane->showResult(hitIn(m_files.filePath(QStringLiteral("notes.md")), 3),
                           QString(),
                           SearchMode::Semantic);
        // Rendered, not shown as source: no "#" or "**" left.
        QCOMPARE(m_pane->documentView()->toPlainText().trimmed(),
                 QStringLiteral("Sourdough\nFeed the starter weekly."));
        QCOMPARE(m_pane->hitLine(), 3);
        QCOMPARE(m_pane->hitBlock().text(), QStringLiteral("Feed the starter weekly."));
    }

    // The rendered document opens at the hit's source line, not at its top.
    void htmlAndMarkdownScrollToTheHit_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("lineFormat"); // %1: the line's number
        QTest::newRow("markdown") << "long.md" << QByteArray("- item **%1** of the list\n\n");
        QTest::newRow("html") << "long.html"
                              << QByteArray("<p>paragraph <b>%1</b> &amp; more</p>\n");
    }
    void htmlAndMarkdownScrollToTheHit()
    {
        QFETCH(QString, name);
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
        m_pane->showResult(hitIn(m_files.filePath(name), hitLine), QString(), SearchMode::Semantic);
        QCOMPARE(m_pane->hitLine(), hitLine);
        QVERIFY(m_pane->hitBlock().text().contains(QStringLiteral("240")));
        QTextBrowser *view = m_pane->documentView();
        QTRY_VERIFY(view->verticalScrollBar()->value() > view->verticalScrollBar()->maximum() / 2);
        QVERIFY(view->viewport()->rect().contains(
            view->cursorRect(QTextCursor(m_pane->hitBlock())).center()));
    }

    void pdfShowsTheHitsPageWithTheMatchesMarked()
    {
        const QString pdf = QStringLiteral(TRN_SOURCE_DIR "/samples/tide-table.pdf");
        m_pane->setDirectory(QStringLiteral(TRN_SOURCE_DIR "/samples"));
        m_pane->showResult(hitIn(pdf, 1), QStringLiteral("tide"), SearchMode::Text);
        QCOMPARE(m_pane->content(), PreviewPane::Content::Pdf);
        QCOMPARE(m_pane->pdfPage(), 0);
        const int pages = m_pane->pdfView()->pageCount();
        QCOMPARE(m_pane->location(), QStringLiteral("page 1 of %1").arg(pages));
        // As many marks as the page's text has matches (a match may wrap over two lines).
        const QString text = m_pane->pdfView()->pageText(0);
        const int matches = int(text.count(QStringLiteral("tide"), Qt::CaseInsensitive));
        QVERIFY(matches > 0);
        QVERIFY(m_pane->pdfView()->matchOutlines().size() >= matches);
        // Semantic: nothing to mark.
        m_pane->showResult(hitIn(pdf, 1), QStringLiteral("tide"), SearchMode::Semantic);
        QVERIFY(m_pane->pdfView()->matchOutlines().isEmpty());
        m_pane->setDirectory(m_files.path());
    }

    // At a small and a large window, beside and under the results, even at the largest share
    // the pane may take, the results keep their room and the pane never lies over them.
    void thePaneNeverCoversTheResults_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("below");
        QTest::addColumn<double>("share");
        for (const QSize size : {QSize(1024, 768), QSize(1600, 1000)}) {
            for (const bool below : {false, true}) {
                for (const double share : {0.45, 0.8}) {
                    QTest::addRow("%dx%d %s %.2f",
                                  size.width(),
                                  size.height(),
                                  below ? "under" : "beside",
                                  share)
                        << size << below << share;
                }
            }
        }
    }
    void thePaneNeverCoversTheResults()
    {
        QFETCH(QSize, size);
        QFETCH(bool, below);
        QFETCH(double, share);
        m_home->settings()->setPreviewPane(true);
        m_home->settings()->setPreviewBelow(below);
        m_home->settings()->setPreviewShare(share);
        TabFolder dir; // outlives the window, and waits for its tab jobs before it goes
        auto w = openAppWindow(m_home->settings());
        MainWindow &window = w->window;
        QVERIFY(writeFile(dir.path(), QStringLiteral("notes.txt"), numberedLines(40)));
        w->app.addTab(dir.path());
        window.resize(size);
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTRY_COMPARE(window.size(), size);
        const auto global = [](const QWidget *widget) {
            return QRect(widget->mapToGlobal(QPoint(0, 0)), widget->size());
        };
        const QWidget *results = window.resultsView()->parentWidget();
        const QWidget *pane = window.previewPane();
        QTRY_VERIFY(pane->isVisible() && pane->width() > 0 && pane->height() > 0);
        QVERIFY2(!global(results).intersects(global(pane)),
                 qPrintable(QDebug::toString(global(results)) + QDebug::toString(global(pane))));
        QVERIFY(results->width() >= results->minimumWidth());
        QVERIFY(results->height() >= results->minimumHeight());
        // Both lie inside the window.
        QVERIFY(
            window.rect().contains(QRect(results->mapTo(&window, QPoint(0, 0)), results->size())));
        QVERIFY(window.rect().contains(QRect(pane->mapTo(&window, QPoint(0, 0)), pane->size())));
        m_home->settings()->setPreviewBelow(false);
        m_home->settings()->setPreviewShare(Settings::kDefaultPreviewShare);
    }

    void thePaneFollowsTheSelectionAndThePointer()
    {
        TabFolder dir; // outlives the window, and waits for its tab jobs before it goes
        auto w = openAppWindow(m_home->settings());
        AppState *app = &w->app;
        MainWindow &window = w->window;
        QVERIFY(writeFile(dir.path(), QStringLiteral("fox.txt"), "a\nb\nThe quick brown fox.\n"));
        QVERIFY(writeFile(dir.path(), QStringLiteral("dog.txt"), "The lazy dog and the fox.\n"));
        app->addTab(dir.path());
        DirectoryState *state = app->activeState();
        QTRY_VERIFY_WITH_TIMEOUT(!state->isIngesting(), 60000);
        QSignalSpy finished(state, &DirectoryState::searchFinished);
        state->search(QStringLiteral("fox"), SearchMode::Text);
        QVERIFY(finished.wait(30000));
        ResultsView *view = window.resultsView();
        PreviewPane *pane = window.previewPane();
        view->doItemsLayout();
        QCOMPARE(view->model()->rowCount(), 2);

        // The first result is current and previewed as soon as the results arrive.
        QCOMPARE(view->currentIndex().row(), 0);
        QCOMPARE(pane->result().filePath, state->resultsModel()->result(0).filePath);
        QCOMPARE(marksOf(pane->textView()), QStringList{"fox"});

        // The selection moves: the pane follows at once.
        view->setFocus();
        QTest::keyClick(view, Qt::Key_Down);
        QCOMPARE(pane->result().filePath, state->resultsModel()->result(1).filePath);

        // The pointer rests on the first row: after 0.6 s, not before, the pane shows it.
        const QPoint onFirst = view->visualRect(view->model()->index(0, 0)).center();
        sendMouse(view->viewport(), QEvent::MouseMove, onFirst, Qt::NoButton, Qt::NoButton);
        QVERIFY(view->isHoverPending());
        QTest::qWait(300);
        QCOMPARE(pane->result().filePath, state->resultsModel()->result(1).filePath);
        QTRY_COMPARE_WITH_TIMEOUT(
            pane->result().filePath, state->resultsModel()->result(0).filePath, 2000);

        // With "hoverPreview" off only the selection counts.
        const QPoint onSecond = view->visualRect(view->model()->index(1, 0)).center();
        m_home->settings()->setHoverPreview(false);
        sendMouse(view->viewport(), QEvent::MouseMove, onSecond, Qt::NoButton, Qt::NoButton);
        QVERIFY(!view->isHoverPending());

        // A search with no results leaves no stale preview behind.
        state->search(QStringLiteral("nowhere to be found"), SearchMode::Text);
        QVERIFY(finished.wait(30000));
        QCOMPARE(pane->content(), PreviewPane::Content::Message);
        QVERIFY(pane->result().filePath.isEmpty());
    }

    void theKeyHidesAndShowsThePaneAndItsSizeIsKept()
    {
        m_home->settings()->setPreviewPane(true);
        m_home->settings()->setPreviewShare(0.3);
        TabFolder dir; // outlives the window, and waits for its tab jobs before it goes
        auto w = openAppWindow(m_home->settings());
        MainWindow &window = w->window;
        QVERIFY(writeFile(dir.path(), QStringLiteral("notes.txt"), "some words\n"));
        w->app.addTab(dir.path());
        window.resize(1000, 700);
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QSplitter *split = window.resultsSplitter();
        QTRY_VERIFY(window.previewPane()->isVisible());
        const auto share = [split] {
            return double(split->sizes().at(1)) / (split->sizes().at(0) + split->sizes().at(1));
        };
        QTRY_VERIFY2(qAbs(share() - 0.3) < 0.02, qPrintable(QString::number(share())));

        // Dragging the handle is remembered as the pane's share.
        split->setSizes({500, 500});
        emit split->splitterMoved(500, 1);
        QVERIFY(qAbs(m_home->settings()->previewShare() - 0.5) < 0.02);

        window.action(QStringLiteral("previewPaneAction"))->trigger();
        QVERIFY(!window.previewPane()->isVisible());
        QVERIFY(!m_home->settings()->previewPane());
        window.action(QStringLiteral("previewPaneAction"))->trigger();
        QVERIFY(window.previewPane()->isVisible());
        QTRY_VERIFY(qAbs(share() - 0.5) < 0.02);
        QCOMPARE(window.action(QStringLiteral("previewPaneAction"))->shortcut(),
                 QKeySequence(Qt::Key_F8));

        // Dragged shut, it counts as hidden.
        split->setSizes({1000, 0});
        emit split->splitterMoved(1000, 1);
        QVERIFY(!m_home->settings()->previewPane());
        m_home->settings()->setPreviewPane(true);
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
    QTemporaryDir m_files;
    std::unique_ptr<PreviewPane> m_pane;
};

QTEST_MAIN(PreviewTest)
#include "preview_test.moc"

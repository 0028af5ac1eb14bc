/*
** help_test.cpp -- the help window: it opens on the first page from the application's own
** resources, every page in the contents exists, and no link leads nowhere.
*/
#include "help_window.h"
#include "main_window.h"
#include "ui_test_support.h"

#include <QAction>
#include <QDir>
#include <QListWidget>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextDocument>

#include <memory>

namespace
{

// Every link target of a rendered page.
QStringList links(const QTextDocument *document)
{
    QStringList targets;
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextCharFormat format = it.fragment().charFormat();
            if (format.isAnchor() && !format.anchorHref().isEmpty()) {
                targets.append(format.anchorHref());
            }
        }
    }
    return targets;
}

} // namespace

class HelpTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
    }

    void helpCommandOpensTheFirstPage()
    {
        auto w = openAppWindow(m_home->settings());
        MainWindow &window = w->window;
        window.action(QStringLiteral("helpAction"))->trigger();
        HelpWindow *help = window.helpWindow();
        QVERIFY(help && help->isVisible());
        QCOMPARE(help->browser()->source(), QUrl(QStringLiteral("qrc:/help/index.html")));
        QCOMPARE(help->browser()->documentTitle(), HelpWindow::pages().first().second);
        QVERIFY(help->windowTitle().endsWith(help->browser()->documentTitle()));
        QCOMPARE(help->contents()->currentRow(), 0);
    }

    // Every shipped page is in the contents, has a title and text, and links only to shipped
    // pages.
    void contentsListEveryShippedPageAndItsLinksStayInside()
    {
        QStringList listed;
        HelpWindow help(m_home->settings());
        for (const auto &[file, title] : HelpWindow::pages()) {
            listed.append(file);
            help.showPage(file);
            QVERIFY2(!help.browser()->toPlainText().trimmed().isEmpty(), qPrintable(file));
            QCOMPARE(help.browser()->documentTitle(), title);
            const QStringList targets = links(help.browser()->document());
            QVERIFY2(file == QLatin1String("shortcuts.html") || !targets.isEmpty(),
                     qPrintable(file));
            for (const QString &target : targets) {
                const QUrl url = HelpWindow::pageUrl(file).resolved(QUrl(target));
                QVERIFY2(url.scheme() == QLatin1String("qrc"), qPrintable(target));
                QVERIFY2(QFile::exists(QLatin1Char(':') + url.path()),
                         qPrintable(file + QStringLiteral(" links to ") + target));
            }
        }
        QStringList shipped = QDir(QStringLiteral(":/help")).entryList({QStringLiteral("*.html")});
        listed.sort();
        shipped.sort();
        QCOMPARE(listed, shipped);
    }

    void choosingAPageInTheContentsShowsIt()
    {
        HelpWindow help(m_home->settings());
        help.contents()->setCurrentRow(5);
        QCOMPARE(help.browser()->source().fileName(), HelpWindow::pages().at(5).first);
        help.browser()->backward();
        QCOMPARE(help.browser()->source().fileName(), QStringLiteral("index.html"));
        QCOMPARE(help.contents()->currentRow(), 0);
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
};

QTEST_MAIN(HelpTest)
#include "help_test.moc"

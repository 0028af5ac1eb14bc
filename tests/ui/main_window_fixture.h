/*
** What the main window's tests share: an isolated home with the light appearance and no hover
** previews, a small sample directory, and opening, indexing and searching it as a user would.
*/
#pragma once

#include "result_opener.h"
#include "results_model.h"
#include "results_view.h"
#include "search_bar.h"
#include "ui_test_support.h"

#include <QAbstractButton>
#include <QLineEdit>

#include <memory>

class MainWindowFixture : public QObject
{
protected:
    void setUpCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        m_home->settings()->setAppearance(QStringLiteral("light"));
    }
    void setUp()
    {
        m_home->settings()->setHoverPreview(false); // these tests are not about previews
        setDesktopServices({});
    }

    std::unique_ptr<IsolatedEnvironment> m_home;
};

// A small directory: three text files and a source file.
inline void writeSample(const QString &dir)
{
    QVERIFY(writeFile(dir,
                      QStringLiteral("notes/marmalade.txt"),
                      "Seville oranges make the best marmalade.\nBoil the peel for two hours "
                      "before the sugar goes in.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("colours.txt"),
                      "The colour of the sky at dusk,\nand the color of the sea at dawn.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("garden.md"),
                      "# Garden\n\nThe raised beds get the most sun in June.\n"));
    QVERIFY(writeFile(dir,
                      QStringLiteral("src/tool.c"),
                      "int main(void)\n{\n    return 0; /* nothing to do yet */\n}\n"));
}

// The new tab of dir once its first indexing is done, or nullptr.
inline DirectoryState *openAndIndex(AppWindow &h, const QString &dir)
{
    h.app.addTab(dir);
    DirectoryState *state = h.app.activeState();
    const auto indexed = [state] {
        return !state->isIngesting();
    };
    return state && QTest::qWaitFor(indexed, 60000) ? state : nullptr;
}

inline void search(AppWindow &h, const QString &query, SearchMode mode)
{
    QLineEdit *field = h.window.searchBar()->field();
    field->clear();
    // The mode first: with text in the field a change of mode would search at once.
    h.window.searchBar()->modeButton(mode)->click();
    QTest::keyClicks(field, query);
    DirectoryState *state = h.app.activeState();
    QSignalSpy finished(state, &DirectoryState::searchFinished);
    QTest::keyClick(field, Qt::Key_Return);
    QVERIFY(finished.wait(30000));
}

inline QStringList shownFileNames(const AppWindow &h)
{
    QStringList names;
    QAbstractItemModel *model = h.window.resultsView()->model();
    for (int row = 0; model && row < model->rowCount(); ++row) {
        names.append(model->index(row, 0).data(ResultsModel::FileNameRole).toString());
    }
    return names;
}

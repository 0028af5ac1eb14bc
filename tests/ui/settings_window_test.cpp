/*
** settings_window_test.cpp -- the settings window: every control persists its setting and the
** appearance applies at once; the encoder training page with the profile panel (add, edit),
** deleting after confirmation, the default choice and the loss chart.
*/
#include "appearance.h"
#include "loss_chart_window.h"
#include "profile_dialog.h"
#include "settings_window.h"
#include "ui_test_support.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QLineSeries>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QThread>
#include <QToolButton>

#include <memory>

namespace
{

template <typename T>
T *child(QWidget *parent, const char *name)
{
    T *found = parent->findChild<T *>(QLatin1String(name));
    if (!found) {
        qWarning("no child named %s", name);
    }
    return found;
}

void choose(QComboBox *box, const QString &text)
{
    const int at = box->findText(text);
    QVERIFY2(at >= 0, qPrintable(text));
    box->setCurrentIndex(at);
    emit box->activated(at);
}

} // namespace

class SettingsWindowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_home = std::make_unique<IsolatedEnvironment>();
        installIconThemeFallback();
        m_systemPalette = QApplication::palette();
    }
    void cleanup()
    {
        TrainingManager *manager = m_home->training();
        for (const TrainingProfile &profile : manager->profiles()) {
            manager->deleteProfile(profile);
        }
        manager->setDefaultProfileId(QUuid());
    }

    void controlsPersistTheirSettings()
    {
        SettingsWindow window(m_home->training(), m_home->settings());
        window.show();
        child<QSpinBox>(&window, "chunkSizeField")->setValue(600);
        child<QSpinBox>(&window, "overlapField")->setValue(150);
        QLineEdit *types = child<QLineEdit>(&window, "extraExtensionsField");
        types->clear();
        QTest::keyClicks(types, QStringLiteral("json, rst"));
        child<QCheckBox>(&window, "hoverPreviewCheck")->click();
        child<QCheckBox>(&window, "previewBelowCheck")->click();
        m_home->settings()->sync();

        // What a later run of the application reads.
        QSettings stored(m_home->settingsPath(), QSettings::IniFormat);
        QCOMPARE(stored.value(QStringLiteral("chunkSize")).toInt(), 600);
        QCOMPARE(stored.value(QStringLiteral("overlap")).toInt(), 150);
        QCOMPARE(stored.value(QStringLiteral("extraExtensions")).toString(),
                 QStringLiteral("json, rst"));
        QCOMPARE(stored.value(QStringLiteral("hoverPreview")).toBool(), false);
        QCOMPARE(stored.value(QStringLiteral("previewBelow")).toBool(), true);

        // A second window shows what the first one stored.
        SettingsWindow second(m_home->training(), m_home->settings());
        QCOMPARE(child<QSpinBox>(&second, "chunkSizeField")->value(), 600);
        QCOMPARE(child<QLineEdit>(&second, "extraExtensionsField")->text(),
                 QStringLiteral("json, rst"));
        QVERIFY(!child<QCheckBox>(&second, "hoverPreviewCheck")->isChecked());
        // And follows changes made elsewhere.
        m_home->settings()->setOverlap(90);
        QCOMPARE(child<QSpinBox>(&second, "overlapField")->value(), 90);
        m_home->settings()->setHoverPreview(true);
        m_home->settings()->setPreviewBelow(false);
    }

    // A chunk size and an overlap that cannot cut a text are never stored; the fields say why.
    void chunkSizeAndOverlapAreCheckedTogether()
    {
        m_home->settings()->setChunkSize(600);
        m_home->settings()->setOverlap(150);
        SettingsWindow window(m_home->training(), m_home->settings());
        window.show();
        QSpinBox *chunk = child<QSpinBox>(&window, "chunkSizeField");
        QSpinBox *overlap = child<QSpinBox>(&window, "overlapField");
        QLabel *problem = child<QLabel>(&window, "chunkingProblemLabel");
        QVERIFY(!problem->isVisible());
        chunk->setValue(200); // an overlap of 150 is more than half of it
        QVERIFY(problem->isVisible());
        QVERIFY2(problem->text().contains(QStringLiteral("half the chunk size")),
                 qPrintable(problem->text()));
        QCOMPARE(overlap->toolTip(), problem->text());
        QCOMPARE(m_home->settings()->chunkSize(), 600);
        QCOMPARE(m_home->settings()->overlap(), 150);
        overlap->setValue(40);
        QVERIFY(!problem->isVisible());
        QCOMPARE(m_home->settings()->chunkSize(), 200);
        QCOMPARE(m_home->settings()->overlap(), 40);
        chunk->setValue(5);
        QVERIFY2(problem->text().contains(QStringLiteral("chunk size")),
                 qPrintable(problem->text()));
        QCOMPARE(m_home->settings()->chunkSize(), 200);
        m_home->settings()->setChunkSize(800);
        m_home->settings()->setOverlap(200);
    }

    void editorChoiceAndCustomCommandAreStored()
    {
        SettingsWindow window(m_home->training(), m_home->settings());
        window.show();
        QComboBox *editor = child<QComboBox>(&window, "editorPicker");
        QLineEdit *command = child<QLineEdit>(&window, "editorCommandField");
        QCOMPARE(editor->currentData().toString(), QStringLiteral("system"));
        choose(editor, QStringLiteral("Kate"));
        QCOMPARE(m_home->settings()->openTextFilesWith(), QStringLiteral("kate"));
        QCOMPARE(command->text(), QStringLiteral("kate -l {line} {file}"));
        QVERIFY(command->isReadOnly());
        choose(editor, QStringLiteral("Custom command"));
        QVERIFY(!command->isReadOnly());
        command->clear();
        QTest::keyClicks(command, QStringLiteral("subl {file}:{line}"));
        QCOMPARE(m_home->settings()->editorCommand(), QStringLiteral("subl {file}:{line}"));
        m_home->settings()->remove(QStringLiteral("openTextFilesWith"));
        m_home->settings()->remove(QStringLiteral("editorCommand"));
    }

    void appearanceAppliesToTheWholeApplicationAtOnce()
    {
        Appearance appearance(m_home->settings());
        const bool systemDark = Appearance::paletteIsDark(m_systemPalette);
        SettingsWindow window(m_home->training(), m_home->settings());
        QComboBox *picker = child<QComboBox>(&window, "appearancePicker");
        QCOMPARE(picker->count(), 4);

        choose(picker, QStringLiteral("Dark"));
        QCOMPARE(m_home->settings()->appearance(), QStringLiteral("dark"));
        QVERIFY(Appearance::paletteIsDark(QApplication::palette()));
        QTRY_VERIFY(Appearance::paletteIsDark(window.palette()));
        choose(picker, QStringLiteral("Light"));
        QVERIFY(!Appearance::paletteIsDark(QApplication::palette()));
        choose(picker, QStringLiteral("Opposite"));
        QCOMPARE(Appearance::paletteIsDark(QApplication::palette()), !systemDark);
        choose(picker, QStringLiteral("System"));
        QCOMPARE(QApplication::palette().color(QPalette::Window),
                 m_systemPalette.color(QPalette::Window));
        QCOMPARE(m_home->settings()->appearance(), QStringLiteral("system"));
    }

    void trainingPageCountsTheCoresAndSaysWhenEmpty()
    {
        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        QVERIFY(child<QLabel>(&window, "trainingExplanation")
                    ->text()
                    .contains(QStringLiteral(" %1 CPU cores ").arg(QThread::idealThreadCount())));
        QVERIFY(child<QLabel>(&window, "noProfilesLabel")->isVisible());
        QVERIFY(window.profileRows().isEmpty());
    }

    void addingAProfileThroughThePanel()
    {
        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        child<QPushButton>(&window, "addProfileButton")->click();
        ProfileDialog *dialog = window.openProfileDialog();
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->windowTitle(), QStringLiteral("New Training Profile"));
        QCOMPARE(dialog->acceptButton()->text(), QStringLiteral("Add"));
        QVERIFY(!dialog->acceptButton()->isEnabled()); // no name yet
        // The fields start at a new profile's values.
        const TrainingProfile fresh;
        QCOMPARE(child<QComboBox>(dialog, "profileSteps")->currentText().toInt(), fresh.steps);
        QCOMPARE(child<QComboBox>(dialog, "profileBatch")->currentText().toInt(), fresh.batchSize);
        QCOMPARE(child<QLineEdit>(dialog, "profileLearningRate")->text().toFloat(),
                 fresh.learningRate);
        QCOMPARE(child<QComboBox>(dialog, "profileHeads")->currentText().toInt(), fresh.heads);
        QCOMPARE(child<QComboBox>(dialog, "profileLayers")->currentText().toInt(), fresh.layers);
        QCOMPARE(child<QComboBox>(dialog, "profileThreads")->currentText().toInt(), fresh.threads);

        QTest::keyClicks(child<QLineEdit>(dialog, "profileName"), QStringLiteral("My Docs: v1.2"));
        choose(child<QComboBox>(dialog, "profileSteps"), QStringLiteral("5000"));
        choose(child<QComboBox>(dialog, "profileBatch"), QStringLiteral("16"));
        QLineEdit *rate = child<QLineEdit>(dialog, "profileLearningRate");
        rate->clear();
        QTest::keyClicks(rate, QStringLiteral("fast"));
        choose(child<QComboBox>(dialog, "profileHeads"), QStringLiteral("4"));
        choose(child<QComboBox>(dialog, "profileLayers"), QStringLiteral("6"));
        choose(child<QComboBox>(dialog, "profileThreads"), QStringLiteral("4"));
        child<QCheckBox>(dialog, "profileUseBPE")->click();
        QCheckBox *fromBuiltIn = child<QCheckBox>(dialog, "profileStartFromBuiltIn");
        QVERIFY(fromBuiltIn->isChecked()); // a new profile starts from the built-in encoder
        fromBuiltIn->click();
        dialog->setDirectoryChooser([](QWidget *) {
            return QStringList{QStringLiteral("/srv/docs"), QStringLiteral("/srv/more")};
        });
        child<QPushButton>(dialog, "addDirectoryButton")->click();
        QListWidget *dirs = child<QListWidget>(dialog, "profileDirectories");
        dirs->item(1)->setSelected(true);
        child<QPushButton>(dialog, "removeDirectoryButton")->click();
        QVERIFY(dialog->acceptButton()->isEnabled());
        dialog->acceptButton()->click();

        TrainingManager *manager = m_home->training();
        QCOMPARE(manager->profiles().size(), 1);
        const TrainingProfile p = manager->profiles().first();
        QCOMPARE(p.name, QStringLiteral("My Docs: v1.2"));
        QCOMPARE(p.steps, 5000);
        QCOMPARE(p.batchSize, 16);
        QCOMPARE(p.learningRate, 0.001f); // "fast" does not parse
        QCOMPARE(p.heads, 4);
        QCOMPARE(p.layers, 6);
        QCOMPARE(p.threads, 4);
        QVERIFY(p.useBPE);
        QVERIFY(!p.startFromBuiltIn);
        QCOMPARE(p.sourceDirectories, QStringList{QStringLiteral("/srv/docs")});
        QVERIFY(p.weightsPath.endsWith(QStringLiteral("/.tarnwick/weights/my_docs__v1_2.tten")));
        QCOMPARE(manager->defaultProfileId(), p.id); // the first profile is the default

        QTRY_COMPARE(window.profileRows().size(), 1);
        ProfileRow *row = window.rowFor(p.id);
        QVERIFY(row);
        QCOMPARE(child<QLabel>(row, "profileName")->text(), p.name);
        QVERIFY(
            child<QLabel>(row, "profileStatus")->text().startsWith(QStringLiteral("Not trained")));
        QTRY_VERIFY(child<QLabel>(row, "defaultBadge")->isVisible());
        QVERIFY(!child<QLabel>(&window, "noProfilesLabel")->isVisible());
    }

    void editingSelectsTheStoredValuesAndKeepsTheWeights()
    {
        TrainingManager *manager = m_home->training();
        TrainingProfile draft;
        draft.name = QStringLiteral("Recipes");
        draft.steps = 10000;
        draft.batchSize = 32;
        draft.learningRate = 0.0005f;
        draft.heads = 16;
        draft.layers = 12;
        draft.threads = 12;
        draft.sourceDirectories = {QStringLiteral("/srv/recipes")};
        const TrainingProfile created = manager->createProfile(draft);

        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        ProfileRow *row = window.rowFor(created.id);
        QVERIFY(row);
        child<QToolButton>(row, "editProfileButton")->click();
        ProfileDialog *dialog = window.openProfileDialog();
        QVERIFY(dialog);
        QCOMPARE(dialog->windowTitle(), QStringLiteral("Edit Training Profile"));
        QCOMPARE(dialog->acceptButton()->text(), QStringLiteral("Save"));
        QCOMPARE(child<QComboBox>(dialog, "profileSteps")->currentText(), QStringLiteral("10000"));
        QCOMPARE(child<QComboBox>(dialog, "profileBatch")->currentText(), QStringLiteral("32"));
        QCOMPARE(child<QComboBox>(dialog, "profileHeads")->currentText(), QStringLiteral("16"));
        QCOMPARE(child<QComboBox>(dialog, "profileLayers")->currentText(), QStringLiteral("12"));
        QCOMPARE(child<QComboBox>(dialog, "profileThreads")->currentText(), QStringLiteral("12"));
        QCOMPARE(child<QLineEdit>(dialog, "profileLearningRate")->text().toFloat(), 0.0005f);
        QCOMPARE(child<QListWidget>(dialog, "profileDirectories")->count(), 1);

        QLineEdit *name = child<QLineEdit>(dialog, "profileName");
        name->clear();
        QTest::keyClicks(name, QStringLiteral("Kitchen"));
        choose(child<QComboBox>(dialog, "profileSteps"), QStringLiteral("1000"));
        dialog->acceptButton()->click();

        const TrainingProfile edited = manager->profile(created.id).value();
        QCOMPARE(edited.name, QStringLiteral("Kitchen"));
        QCOMPARE(edited.steps, 1000);
        QCOMPARE(edited.weightsPath, created.weightsPath); // renaming keeps the weights file
        QCOMPARE(edited.batchSize, 32);
        QCOMPARE(child<QLabel>(window.rowFor(created.id), "profileName")->text(),
                 QStringLiteral("Kitchen"));
    }

    void deletingAsksFirstThenRemovesProfileAndFiles()
    {
        TrainingManager *manager = m_home->training();
        TrainingProfile draft;
        draft.name = QStringLiteral("Scratch");
        const TrainingProfile created = manager->createProfile(draft);
        QVERIFY(writeFile(created.weightsPath, "TTEN"));
        QVERIFY(writeFile(created.lossPath(), "1,2.0\n"));

        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        auto pressDelete = [&window, &created] {
            child<QToolButton>(window.rowFor(created.id), "deleteProfileButton")->click();
        };
        pressDelete();
        QMessageBox *box = window.openDeleteConfirmation();
        QVERIFY(box && box->isVisible());
        QVERIFY2(box->text().contains(QStringLiteral("\u201cScratch\u201d")),
                 qPrintable(box->text()));
        box->button(QMessageBox::Cancel)->click();
        QVERIFY(manager->profile(created.id).has_value());
        QVERIFY(QFileInfo::exists(created.weightsPath));

        QTRY_VERIFY(!window.openDeleteConfirmation());
        pressDelete();
        box = window.openDeleteConfirmation();
        QVERIFY(box);
        auto *confirm = box->findChild<QPushButton *>(QStringLiteral("confirmDeleteButton"));
        confirm->click();
        QVERIFY(!manager->profile(created.id).has_value());
        QVERIFY(!QFileInfo::exists(created.weightsPath));
        QVERIFY(!QFileInfo::exists(created.lossPath()));
        QTRY_VERIFY(window.profileRows().isEmpty());
        QVERIFY(child<QLabel>(&window, "noProfilesLabel")->isVisible());
    }

    void setAsDefaultMovesTheBadge()
    {
        TrainingManager *manager = m_home->training();
        TrainingProfile draft;
        draft.name = QStringLiteral("First");
        const TrainingProfile first = manager->createProfile(draft);
        draft.name = QStringLiteral("Second");
        const TrainingProfile second = manager->createProfile(draft);
        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        QVERIFY(child<QLabel>(window.rowFor(first.id), "defaultBadge")->isVisible());
        QPushButton *makeDefault = child<QPushButton>(window.rowFor(second.id), "defaultButton");
        QVERIFY(makeDefault->isVisible());
        makeDefault->click();
        QCOMPARE(manager->defaultProfileId(), second.id);
        QVERIFY(child<QLabel>(window.rowFor(second.id), "defaultBadge")->isVisible());
        QVERIFY(!child<QLabel>(window.rowFor(first.id), "defaultBadge")->isVisible());
        QVERIFY(child<QPushButton>(window.rowFor(first.id), "defaultButton")->isVisible());
    }

    void lossChartShowsTheLogOrItsTwoLineMessage()
    {
        TrainingManager *manager = m_home->training();
        TrainingProfile draft;
        draft.name = QStringLiteral("Charted");
        const TrainingProfile profile = manager->createProfile(draft);

        LossChartWindow empty(profile, m_home->settings());
        QVERIFY(empty.windowTitle().endsWith(QStringLiteral(" Charted")));
        QVERIFY(!empty.hasData());
        QCOMPARE(empty.messageLabel()->text().count(QLatin1Char('\n')), 1);

        QFile log(QStringLiteral(TRN_SOURCE_DIR "/tests/ui/data/sample_run.loss"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        QVERIFY(writeFile(profile.lossPath(), log.readAll()));
        LossChartWindow chart(profile, m_home->settings());
        QVERIFY(chart.hasData());
        // The header line "step,loss" is skipped; eleven records remain, in file order.
        QCOMPARE(chart.series()->count(), 11);
        QCOMPARE(chart.series()->at(0).x(), 1.0);
        QCOMPARE(float(chart.series()->at(0).y()), 2.9921f);
        QCOMPARE(chart.series()->at(10).x(), 100.0);

        // A running training appends to the log; the open chart follows it, and the window
        // that showed the message switches to the chart.
        QFile grow(profile.lossPath());
        QVERIFY(grow.open(QIODevice::Append));
        grow.write("110,2.1\n120,2.0\n");
        grow.close();
        QTRY_COMPARE_WITH_TIMEOUT(chart.series()->count(), 13, 5000);
        QCOMPARE(chart.series()->at(12).x(), 120.0);
        QTRY_VERIFY_WITH_TIMEOUT(empty.hasData(), 5000);

        // The row's chart button opens the same window.
        SettingsWindow window(m_home->training(), m_home->settings());
        window.showTrainingPage();
        window.show();
        child<QToolButton>(window.rowFor(profile.id), "lossChartButton")->click();
        LossChartWindow *opened = window.lossChart(profile.id);
        QVERIFY(opened && opened->isVisible());
        QVERIFY(opened->hasData());
    }

private:
    std::unique_ptr<IsolatedEnvironment> m_home;
    QPalette m_systemPalette;
};

QTEST_MAIN(SettingsWindowTest)
#include "settings_window_test.moc"

/*
** settings_window.cpp -- the General and Encoder Training pages.
*/
#include "settings_window.h"

#include "icons.h"
#include "loss_chart_window.h"
#include "profile_dialog.h"
#include "result_opener.h"
#include "settings.h"
#include "training_manager.h"
#include "window_frames.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

namespace
{

QLabel *helpLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.92);
    label->setFont(font);
    return label;
}

QToolButton *iconButton(const QString &icon, const QString &text, const QString &tip,
                        const QString &objectName, QWidget *parent)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(objectName);
    const QIcon themed = themedIcon(icon.split(QLatin1Char('|')));
    button->setIcon(themed);
    button->setText(text);
    button->setToolTip(tip);
    button->setToolButtonStyle(themed.isNull() ? Qt::ToolButtonTextOnly : Qt::ToolButtonIconOnly);
    button->setAutoRaise(true);
    return button;
}

} // namespace

// ---- profile row ----

ProfileRow::ProfileRow(const TrainingProfile &profile, QWidget *parent)
    : QFrame(parent), m_id(profile.id)
{
    setObjectName(QStringLiteral("profileRow"));
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Base);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 10, 8, 10);
    layout->setSpacing(8);

    auto *texts = new QVBoxLayout();
    texts->setSpacing(3);
    auto *nameLine = new QHBoxLayout();
    nameLine->setSpacing(8);
    m_name = new QLabel(this);
    m_name->setObjectName(QStringLiteral("profileName"));
    QFont bold = m_name->font();
    bold.setWeight(QFont::DemiBold);
    m_name->setFont(bold);
    m_badge = new QLabel(tr("Default"), this);
    m_badge->setObjectName(QStringLiteral("defaultBadge"));
    m_badge->setForegroundRole(QPalette::Highlight);
    QFont badgeFont = m_badge->font();
    badgeFont.setPointSizeF(badgeFont.pointSizeF() * 0.85);
    badgeFont.setWeight(QFont::DemiBold);
    m_badge->setFont(badgeFont);
    nameLine->addWidget(m_name);
    nameLine->addWidget(m_badge);
    nameLine->addStretch(1);
    texts->addLayout(nameLine);
    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("profileStatus"));
    m_status->setForegroundRole(QPalette::PlaceholderText);
    m_status->setWordWrap(true);
    texts->addWidget(m_status);
    m_progress = new QLabel(this);
    m_progress->setObjectName(QStringLiteral("profileProgress"));
    m_progress->setWordWrap(true);
    texts->addWidget(m_progress);
    layout->addLayout(texts, 1);

    m_train = new QPushButton(tr("Train"), this);
    m_train->setObjectName(QStringLiteral("trainButton"));
    m_train->setIcon(themedIcon(QStringLiteral("media-playback-start")));
    m_cancel = new QPushButton(tr("Cancel"), this);
    m_cancel->setObjectName(QStringLiteral("cancelTrainingButton"));
    m_cancel->setIcon(themedIcon(QStringLiteral("process-stop")));
    m_default = new QPushButton(tr("Set as Default"), this);
    m_default->setObjectName(QStringLiteral("defaultButton"));
    m_chart = iconButton(QStringLiteral("x-office-spreadsheet"),
                         tr("Loss Chart"),
                         tr("Show loss chart"),
                         QStringLiteral("lossChartButton"),
                         this);
    m_edit = iconButton(QStringLiteral("document-edit|document-properties"),
                        tr("Edit"),
                        tr("Edit profile"),
                        QStringLiteral("editProfileButton"),
                        this);
    m_delete = iconButton(QStringLiteral("edit-delete"),
                          tr("Delete"),
                          tr("Delete profile and weights"),
                          QStringLiteral("deleteProfileButton"),
                          this);
    for (QWidget *w : std::initializer_list<QWidget *>{
             m_train, m_cancel, m_default, m_chart, m_edit, m_delete}) {
        layout->addWidget(w, 0, Qt::AlignVCenter);
    }
    connect(m_train, &QPushButton::clicked, this, &ProfileRow::trainRequested);
    connect(m_cancel, &QPushButton::clicked, this, &ProfileRow::cancelRequested);
    connect(m_default, &QPushButton::clicked, this, &ProfileRow::makeDefaultRequested);
    connect(m_chart, &QToolButton::clicked, this, &ProfileRow::lossChartRequested);
    connect(m_edit, &QToolButton::clicked, this, &ProfileRow::editRequested);
    connect(m_delete, &QToolButton::clicked, this, &ProfileRow::deleteRequested);
}

void ProfileRow::sync(const TrainingProfile &profile, bool isDefault, bool isTraining,
                      const QString &progress)
{
    m_name->setText(profile.name);
    m_badge->setVisible(isDefault);
    QString status = trainingStatusText(profile.status);
    if (profile.lastTrained) {
        status += tr(" \u00b7 last trained %1")
                      .arg(QLocale().toString(profile.lastTrained->toLocalTime(),
                                              QStringLiteral("d MMM yyyy, HH:mm")));
    }
    status +=
        QStringLiteral("\n")
        + tr("%1 steps, batch %2, %3 heads, %4 layers, %5%6")
              .arg(profile.steps)
              .arg(profile.batchSize)
              .arg(profile.heads)
              .arg(profile.layers)
              .arg(profile.threads == 1 ? tr("1 thread") : tr("%1 threads").arg(profile.threads))
              .arg(profile.useBPE ? tr(", BPE tokenizer") : QString());
    m_status->setText(status);
    const bool runningHere = isTraining && profile.status == TrainingStatus::Training;
    m_progress->setText(runningHere ? progress : QString());
    m_progress->setVisible(runningHere && !progress.isEmpty());
    m_train->setVisible(!runningHere);
    m_train->setEnabled(!isTraining);
    m_train->setText(profile.status == TrainingStatus::Trained ? tr("Retrain") : tr("Train"));
    m_cancel->setVisible(runningHere);
    m_default->setVisible(!isDefault);
    m_edit->setEnabled(!runningHere);
    m_delete->setEnabled(!runningHere);
}

// ---- window ----

SettingsWindow::SettingsWindow(TrainingManager *manager, Settings *settings, QWidget *parent)
    : QWidget(parent, Qt::Window), m_settings(settings), m_manager(manager)
{
    setObjectName(QStringLiteral("settingsWindow"));
    setAttribute(Qt::WA_QuitOnClose, false);
    setWindowTitle(tr("Tarnwick Settings"));
    resize(720, 680);
    setMinimumSize(600, 440);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 12, 12, 12);
    m_tabs = new QTabWidget(this);
    m_tabs->setObjectName(QStringLiteral("settingsTabs"));
    m_tabs->setDocumentMode(false);
    // The general page scrolls rather than squeezes its fields on a short screen.
    auto *general = new QScrollArea(m_tabs);
    general->setObjectName(QStringLiteral("generalScroll"));
    general->setWidgetResizable(true);
    general->setFrameShape(QFrame::NoFrame);
    general->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    general->setWidget(buildGeneralPage());
    m_tabs->addTab(general, themedIcon(QStringLiteral("preferences-system")), tr("General"));
    m_tabs->addTab(
        buildTrainingPage(), themedIcon(QStringLiteral("system-run")), tr("Encoder Training"));
    layout->addWidget(m_tabs);

    connect(m_settings, &Settings::appearanceChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::chunkSizeChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::overlapChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::extraExtensionsChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::excludePatternsChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::maxFileSizeMBChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::hoverPreviewChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::previewBelowChanged, this, &SettingsWindow::syncGeneral);
    connect(m_settings, &Settings::openTextFilesWithChanged, this, &SettingsWindow::syncGeneral);
    connect(m_manager, &TrainingManager::profilesChanged, this, &SettingsWindow::syncProfiles);
    connect(
        m_manager, &TrainingManager::defaultProfileIdChanged, this, &SettingsWindow::syncProfiles);
    connect(m_manager, &TrainingManager::isTrainingChanged, this, &SettingsWindow::syncProfiles);
    connect(
        m_manager, &TrainingManager::trainingProgressChanged, this, &SettingsWindow::syncProgress);
    syncGeneral();
    syncProfiles();

    auto *frame = new WindowFrame(this, QStringLiteral("TarnwickSettingsWindow"), m_settings);
    frame->restore(); // only when it fits; showOnScreen places it otherwise
}

QWidget *SettingsWindow::buildGeneralPage()
{
    auto *page = new QWidget(this);
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(14);

    auto *look = new QGroupBox(tr("Appearance"), page);
    auto *lookForm = new QFormLayout(look);
    lookForm->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    m_appearance = new QComboBox(look);
    m_appearance->setObjectName(QStringLiteral("appearancePicker"));
    m_appearance->addItem(tr("System"), QStringLiteral("system"));
    m_appearance->addItem(tr("Light"), QStringLiteral("light"));
    m_appearance->addItem(tr("Dark"), QStringLiteral("dark"));
    m_appearance->addItem(tr("Opposite"), QStringLiteral("opposite"));
    m_appearance->setMinimumWidth(160);
    m_appearance->setToolTip(tr("System follows the desktop; Opposite is the reverse of it"));
    lookForm->addRow(tr("Appearance:"), m_appearance);
    connect(m_appearance, &QComboBox::activated, this, [this](int index) {
        m_settings->setAppearance(m_appearance->itemData(index).toString());
    });
    layout->addWidget(look);

    auto *indexing = new QGroupBox(tr("Indexing"), page);
    auto *indexForm = new QFormLayout(indexing);
    indexForm->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    indexForm->setVerticalSpacing(6);
    m_chunkSize = new QSpinBox(indexing);
    m_chunkSize->setObjectName(QStringLiteral("chunkSizeField"));
    m_chunkSize->setRange(1, 100000);
    m_chunkSize->setSingleStep(50);
    m_chunkSize->setSuffix(tr(" characters"));
    m_chunkSize->setMinimumWidth(160);
    indexForm->addRow(tr("Chunk size:"), m_chunkSize);
    indexForm->addRow(QString(),
                      helpLabel(tr("Applied when indexing new directories. Source "
                                   "code: 400\u2013800. Documents: 800\u20131200."),
                                indexing));
    m_overlap = new QSpinBox(indexing);
    m_overlap->setObjectName(QStringLiteral("overlapField"));
    m_overlap->setRange(1, 100000);
    m_overlap->setSingleStep(25);
    m_overlap->setSuffix(tr(" characters"));
    m_overlap->setMinimumWidth(160);
    indexForm->addRow(tr("Overlap:"), m_overlap);
    m_chunkingProblem = new QLabel(indexing);
    m_chunkingProblem->setObjectName(QStringLiteral("chunkingProblemLabel"));
    m_chunkingProblem->setWordWrap(true);
    m_chunkingProblem->hide();
    indexForm->addRow(QString(), m_chunkingProblem);
    // The two values are saved together, and only as a pair that can cut a text into chunks.
    connect(m_chunkSize, &QSpinBox::valueChanged, this, [this] {
        applyChunking();
    });
    connect(m_overlap, &QSpinBox::valueChanged, this, [this] {
        applyChunking();
    });
    layout->addWidget(indexing);

    auto *opening = new QGroupBox(tr("Opening Results"), page);
    auto *openForm = new QFormLayout(opening);
    openForm->setVerticalSpacing(6);
    m_editor = new QComboBox(opening);
    m_editor->setObjectName(QStringLiteral("editorPicker"));
    for (const EditorPreset &preset : editorPresets()) {
        m_editor->addItem(preset.label, preset.key);
    }
    m_editor->setMinimumWidth(200);
    openForm->addRow(tr("Open text files with:"), m_editor);
    m_editorCommand = new QLineEdit(opening);
    m_editorCommand->setObjectName(QStringLiteral("editorCommandField"));
    m_editorCommand->setPlaceholderText(tr("e.g. subl {file}:{line}"));
    openForm->addRow(tr("Command:"), m_editorCommand);
    m_editorHelp = helpLabel(QString(), opening);
    openForm->addRow(QString(), m_editorHelp);
    connect(m_editor, &QComboBox::activated, this, [this](int index) {
        m_settings->setOpenTextFilesWith(m_editor->itemData(index).toString());
    });
    connect(m_editorCommand, &QLineEdit::textEdited, this, [this](const QString &text) {
        m_settings->setEditorCommand(text);
        syncEditorHelp();
    });
    layout->addWidget(opening);

    auto *types = new QGroupBox(tr("Additional File Types"), page);
    auto *typesLayout = new QVBoxLayout(types);
    m_extensions = new QLineEdit(types);
    m_extensions->setObjectName(QStringLiteral("extraExtensionsField"));
    typesLayout->addWidget(m_extensions);
    typesLayout->addWidget(helpLabel(tr("Comma-separated extensions to index as text, beyond "
                                        "what Tarnwick recognizes. Re-index after changes."),
                                     types));
    connect(m_extensions, &QLineEdit::textEdited, this, [this](const QString &text) {
        m_settings->setExtraExtensions(text);
    });
    layout->addWidget(types);

    auto *exclusions = new QGroupBox(tr("Excluded Files"), page);
    auto *exclusionsForm = new QFormLayout(exclusions);
    m_excludePatterns = new QLineEdit(exclusions);
    m_excludePatterns->setObjectName(QStringLiteral("excludePatternsField"));
    m_excludePatterns->setPlaceholderText(QString::fromLatin1(Settings::kDefaultExcludePatterns));
    exclusionsForm->addRow(tr("Patterns:"), m_excludePatterns);
    m_maxFileSize = new QSpinBox(exclusions);
    m_maxFileSize->setObjectName(QStringLiteral("maxFileSizeSpin"));
    m_maxFileSize->setRange(1, 4096);
    m_maxFileSize->setSuffix(tr(" MB"));
    exclusionsForm->addRow(tr("Largest file:"), m_maxFileSize);
    exclusionsForm->addRow(
        QString(),
        helpLabel(tr("Comma-separated patterns in .gitignore syntax that are never indexed, "
                     "in every directory. .gitignore and .tarnwickignore files are honoured "
                     "too. Larger files are skipped. Re-index after changes."),
                  exclusions));
    connect(m_excludePatterns, &QLineEdit::textEdited, this, [this](const QString &text) {
        m_settings->setExcludePatterns(text);
    });
    connect(m_maxFileSize, &QSpinBox::valueChanged, this, [this](int mb) {
        m_settings->setMaxFileSizeMB(mb);
    });
    layout->addWidget(exclusions);

    auto *preview = new QGroupBox(tr("Preview"), page);
    auto *previewLayout = new QVBoxLayout(preview);
    m_hoverPreview = new QCheckBox(tr("Preview the result under the pointer"), preview);
    m_hoverPreview->setObjectName(QStringLiteral("hoverPreviewCheck"));
    m_previewBelow = new QCheckBox(tr("Show the preview under the results"), preview);
    m_previewBelow->setObjectName(QStringLiteral("previewBelowCheck"));
    previewLayout->addWidget(m_hoverPreview);
    previewLayout->addWidget(m_previewBelow);
    connect(m_hoverPreview, &QCheckBox::toggled, this, [this](bool on) {
        m_settings->setHoverPreview(on);
    });
    connect(m_previewBelow, &QCheckBox::toggled, this, [this](bool on) {
        m_settings->setPreviewBelow(on);
    });
    layout->addWidget(preview);
    layout->addStretch(1);
    return page;
}

QWidget *SettingsWindow::buildTrainingPage()
{
    auto *page = new QWidget(this);
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(12);

    auto *explanation = new QLabel(
        tr("Train an encoder on your documents for semantic search. Set a profile as default, "
           "or override per-directory in each tab. ")
            + TrainingManager::cpuCoresText(),
        page);
    explanation->setObjectName(QStringLiteral("trainingExplanation"));
    explanation->setWordWrap(true);
    layout->addWidget(explanation);

    auto *scroll = new QScrollArea(page);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setFrameShape(QFrame::NoFrame);
    auto *list = new QWidget(scroll);
    m_rows = new QVBoxLayout(list);
    m_rows->setContentsMargins(0, 0, 0, 0);
    m_rows->setSpacing(8);
    m_noProfiles = new QLabel(tr("No training profiles yet."), list);
    m_noProfiles->setObjectName(QStringLiteral("noProfilesLabel"));
    m_noProfiles->setAlignment(Qt::AlignCenter);
    m_noProfiles->setForegroundRole(QPalette::PlaceholderText);
    m_noProfiles->setMinimumHeight(80);
    m_rows->addWidget(m_noProfiles);
    m_rows->addStretch(1);
    scroll->setWidget(list);
    layout->addWidget(scroll, 1);

    m_progress = new QLabel(page);
    m_progress->setObjectName(QStringLiteral("trainingProgressLabel"));
    m_progress->setWordWrap(true);
    m_progress->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_progress);

    auto *buttons = new QHBoxLayout();
    auto *add = new QPushButton(
        themedIcon(QStringLiteral("list-add")), tr("Add Training Profile\u2026"), page);
    add->setObjectName(QStringLiteral("addProfileButton"));
    connect(add, &QPushButton::clicked, this, [this] {
        openProfilePanel(QUuid());
    });
    buttons->addWidget(add);
    buttons->addStretch(1);
    layout->addLayout(buttons);
    return page;
}

void SettingsWindow::showTrainingPage()
{
    m_tabs->setCurrentIndex(1);
}

void SettingsWindow::syncGeneral()
{
    const QSignalBlocker b1(m_chunkSize);
    const QSignalBlocker b2(m_overlap);
    const QSignalBlocker b3(m_hoverPreview);
    const QSignalBlocker b4(m_previewBelow);
    const QSignalBlocker b5(m_maxFileSize);
    const int at = m_appearance->findData(m_settings->appearance());
    m_appearance->setCurrentIndex(at >= 0 ? at : 0);
    m_chunkSize->setValue(m_settings->chunkSize() >= 1 ? m_settings->chunkSize()
                                                       : Settings::kDefaultChunkSize);
    m_overlap->setValue(m_settings->overlap() >= 1 ? m_settings->overlap()
                                                   : Settings::kDefaultOverlap);
    if (m_extensions->text() != m_settings->extraExtensions()) {
        m_extensions->setText(m_settings->extraExtensions());
    }
    if (m_excludePatterns->text() != m_settings->excludePatterns()) {
        m_excludePatterns->setText(m_settings->excludePatterns());
    }
    m_maxFileSize->setValue(int(m_settings->effectiveMaxFileSize() / (1024 * 1024)));
    m_hoverPreview->setChecked(m_settings->hoverPreview());
    m_previewBelow->setChecked(m_settings->previewBelow());
    const int editor = m_editor->findData(m_settings->openTextFilesWith());
    m_editor->setCurrentIndex(editor >= 0 ? editor : 0);
    syncEditorHelp();
    syncChunkingProblem();
}

QString SettingsWindow::chunkingProblem(int chunkSize, int overlap)
{
    // The model's rule, so the window never offers a pair the settings would refuse.
    QString problem = Settings::chunkingProblem(chunkSize, overlap);
    if (problem.isEmpty()) {
        return problem;
    }
    problem[0] = problem[0].toUpper();
    return problem
           + tr(". Each chunk starts chunk size minus overlap characters after the one "
                "before. Not saved.");
}

void SettingsWindow::applyChunking()
{
    m_settings->setChunking(m_chunkSize->value(), m_overlap->value());
    syncChunkingProblem();
}

void SettingsWindow::syncChunkingProblem()
{
    const QString problem = chunkingProblem(m_chunkSize->value(), m_overlap->value());
    m_chunkingProblem->setText(problem);
    m_chunkingProblem->setVisible(!problem.isEmpty());
    const bool dark = palette().color(QPalette::Window).lightness() < 128;
    const QString red = dark ? QStringLiteral("#ff8a80") : QStringLiteral("#c62828");
    m_chunkingProblem->setStyleSheet(QStringLiteral("color: %1;").arg(red));
    const QString fieldStyle = problem.isEmpty()
                                   ? QString()
                                   : QStringLiteral("QSpinBox { border: 1px solid %1; }").arg(red);
    m_chunkSize->setStyleSheet(fieldStyle);
    m_overlap->setStyleSheet(fieldStyle);
    m_chunkSize->setToolTip(problem);
    m_overlap->setToolTip(problem);
}

void SettingsWindow::syncEditorHelp()
{
    const QString key = m_editor->currentData().toString();
    const std::optional<EditorPreset> preset = editorPreset(key);
    const bool custom = key == QLatin1String("custom");
    {
        const QSignalBlocker block(m_editorCommand);
        const QString shown =
            custom ? m_settings->editorCommand() : (preset ? preset->command : QString());
        if (m_editorCommand->text() != shown) {
            m_editorCommand->setText(shown);
        }
    }
    m_editorCommand->setReadOnly(!custom);
    m_editorCommand->setEnabled(custom || (preset && !preset->command.isEmpty()));
    QString help;
    if (key == QLatin1String("system")) {
        help = tr("Uses the editor link when an application handles it, otherwise opens the "
                  "file with the desktop's default application (without the line).");
    } else if (custom) {
        help = tr("{file} and {line} are replaced by the result's path and line. The command "
                  "runs directly, not through a shell; quote arguments with ' or \".");
        if (!m_editorCommand->text().trimmed().isEmpty()
            && !editorArguments(m_editorCommand->text(), QStringLiteral("f"), 1)) {
            help = tr("This command has an unclosed quote.");
        }
    } else {
        help = tr("Opens at the result's line. If the program is missing, the file opens with "
                  "the default application instead.");
    }
    m_editorHelp->setText(help);
}

QList<ProfileRow *> SettingsWindow::profileRows() const
{
    QList<ProfileRow *> rows;
    for (int i = 0; i < m_rows->count(); ++i) {
        if (auto *row = qobject_cast<ProfileRow *>(m_rows->itemAt(i)->widget())) {
            rows.append(row);
        }
    }
    return rows;
}

ProfileRow *SettingsWindow::rowFor(const QUuid &id) const
{
    for (ProfileRow *row : profileRows()) {
        if (row->profileId() == id) {
            return row;
        }
    }
    return nullptr;
}

void SettingsWindow::syncProfiles()
{
    const QList<TrainingProfile> profiles = m_manager->profiles();
    // Drop rows of deleted profiles and rows out of order; then add what is missing.
    QList<ProfileRow *> rows = profileRows();
    for (int i = 0; i < rows.size(); ++i) {
        if (i >= profiles.size() || rows.at(i)->profileId() != profiles.at(i).id) {
            for (int j = i; j < rows.size(); ++j) {
                delete rows.at(j);
            }
            rows = rows.mid(0, i);
            break;
        }
    }
    for (qsizetype i = rows.size(); i < profiles.size(); ++i) {
        const QUuid id = profiles.at(i).id;
        auto *row = new ProfileRow(profiles.at(i), m_noProfiles->parentWidget());
        m_rows->insertWidget(static_cast<int>(i) + 1, row);
        connect(row, &ProfileRow::trainRequested, this, [this, id] {
            if (const std::optional<TrainingProfile> p = m_manager->profile(id)) {
                m_manager->train(*p);
            }
        });
        connect(row, &ProfileRow::cancelRequested, this, [this] {
            m_manager->cancelTraining();
        });
        connect(row, &ProfileRow::editRequested, this, [this, id] {
            openProfilePanel(id);
        });
        connect(row, &ProfileRow::deleteRequested, this, [this, id] {
            confirmDelete(id);
        });
        connect(row, &ProfileRow::lossChartRequested, this, [this, id] {
            showLossChart(id);
        });
        connect(row, &ProfileRow::makeDefaultRequested, this, [this, id] {
            m_manager->setDefaultProfileId(id);
        });
    }
    m_noProfiles->setVisible(profiles.isEmpty());
    syncProgress();
}

void SettingsWindow::syncProgress()
{
    const QList<TrainingProfile> profiles = m_manager->profiles();
    const QUuid defaultId = m_manager->defaultProfileId();
    for (ProfileRow *row : profileRows()) {
        for (const TrainingProfile &profile : profiles) {
            if (profile.id == row->profileId()) {
                row->sync(profile,
                          profile.id == defaultId,
                          m_manager->isTraining(),
                          m_manager->trainingProgress());
            }
        }
    }
    // While a run is under way its progress shows in its row; the outcome stays here.
    m_progress->setText(m_manager->isTraining() ? QString() : m_manager->trainingProgress());
    m_progress->setVisible(!m_progress->text().isEmpty());
}

QString SettingsWindow::deleteConfirmationText(const QString &profileName)
{
    return QStringLiteral("Delete \u201c") + profileName
           + QStringLiteral("\u201d and its weights file? This cannot be undone.");
}

void SettingsWindow::openProfilePanel(const QUuid &id)
{
    if (m_dialog) {
        m_dialog->raise();
        return;
    }
    std::optional<TrainingProfile> editing;
    if (!id.isNull()) {
        editing = m_manager->profile(id);
        if (!editing) {
            return;
        }
    }
    m_dialog = new ProfileDialog(editing, this);
    m_dialog->setAttribute(Qt::WA_DeleteOnClose);
    m_dialog->setWindowModality(Qt::WindowModal);
    ProfileDialog *dialog = m_dialog;
    connect(dialog, &QDialog::accepted, this, [this, dialog] {
        if (dialog->isEditing()) {
            m_manager->editProfile(dialog->profile());
        } else {
            m_manager->createProfile(dialog->profile());
        }
    });
    dialog->open();
    fitOnceShown(dialog, anchorWindow());
}

void SettingsWindow::confirmDelete(const QUuid &id)
{
    const std::optional<TrainingProfile> profile = m_manager->profile(id);
    if (!profile || m_confirmation) {
        return;
    }
    m_confirmation = new QMessageBox(QMessageBox::Warning,
                                     tr("Delete Training Profile?"),
                                     deleteConfirmationText(profile->name),
                                     QMessageBox::NoButton,
                                     this);
    m_confirmation->setObjectName(QStringLiteral("deleteConfirmation"));
    m_confirmation->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton *remove =
        m_confirmation->addButton(tr("Delete profile and weights"), QMessageBox::DestructiveRole);
    remove->setObjectName(QStringLiteral("confirmDeleteButton"));
    QPushButton *cancel = m_confirmation->addButton(QMessageBox::Cancel);
    m_confirmation->setDefaultButton(cancel);
    connect(remove, &QPushButton::clicked, this, [this, id] {
        if (const std::optional<TrainingProfile> p = m_manager->profile(id)) {
            m_manager->deleteProfile(*p);
        }
    });
    m_confirmation->open();
    fitOnceShown(m_confirmation, anchorWindow());
}

LossChartWindow *SettingsWindow::lossChart(const QUuid &id) const
{
    const std::optional<TrainingProfile> profile = m_manager->profile(id);
    for (const QPointer<LossChartWindow> &chart : m_charts) {
        if (chart && profile && chart->windowTitle() == LossChartWindow::titleFor(profile->name)) {
            return chart;
        }
    }
    return nullptr;
}

QWidget *SettingsWindow::anchorWindow()
{
    return parentWidget() ? parentWidget()->window() : this;
}

void SettingsWindow::showLossChart(const QUuid &id)
{
    const std::optional<TrainingProfile> profile = m_manager->profile(id);
    if (!profile) {
        return;
    }
    if (LossChartWindow *open = lossChart(id)) {
        open->close(); // re-read the log: it may have grown since
    }
    auto *chart = new LossChartWindow(*profile, m_settings, this);
    chart->setAttribute(Qt::WA_DeleteOnClose);
    m_charts.removeAll(nullptr);
    m_charts.append(chart);
    showOnScreen(chart, anchorWindow());
}

/*
** profile_dialog.cpp -- the panel that creates or edits a training profile.
*/
#include "profile_dialog.h"

#include "directory_chooser.h"
#include "icons.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

ProfileDialog::ProfileDialog(const std::optional<TrainingProfile> &profile, QWidget *parent)
    : QDialog(parent), m_original(profile)
{
    setObjectName(QStringLiteral("profileDialog"));
    setWindowTitle(profile ? tr("Edit Training Profile") : tr("New Training Profile"));
    setMinimumWidth(480);
    m_chooser = [](QWidget *owner) {
        return chooseDirectories(owner, tr("Choose source directories"));
    };
    const TrainingProfile values = profile.value_or(TrainingProfile());

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 16);
    layout->setSpacing(14);
    auto *heading = new QLabel(windowTitle(), this);
    QFont headingFont = heading->font();
    headingFont.setPointSizeF(headingFont.pointSizeF() * 1.25);
    headingFont.setWeight(QFont::DemiBold);
    heading->setFont(headingFont);
    layout->addWidget(heading);

    auto *form = new QFormLayout();
    form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    form->setHorizontalSpacing(12);
    form->setVerticalSpacing(8);
    m_name = new QLineEdit(values.name, this);
    m_name->setObjectName(QStringLiteral("profileName"));
    m_name->setPlaceholderText(tr("e.g. Swedish, English, Mixed"));
    form->addRow(tr("Name:"), m_name);

    using P = TrainingProfile;
    m_steps = makeChoice(QStringLiteral("profileSteps"),
                         P::kStepChoices,
                         static_cast<int>(std::size(P::kStepChoices)),
                         values.steps);
    form->addRow(tr("Steps:"), m_steps);
    m_batch = makeChoice(QStringLiteral("profileBatch"),
                         P::kBatchChoices,
                         static_cast<int>(std::size(P::kBatchChoices)),
                         values.batchSize);
    form->addRow(tr("Batch:"), m_batch);

    auto *rateRow = new QHBoxLayout();
    m_learningRate = new QLineEdit(
        profile ? QString::number(values.learningRate, 'g', 7) : QStringLiteral("0.001"), this);
    m_learningRate->setObjectName(QStringLiteral("profileLearningRate"));
    m_learningRate->setMaximumWidth(120);
    m_learningRate->setToolTip(tr("Usually between 1e-4 and 1e-3"));
    auto *rateHint = new QLabel(tr("1e-4 to 1e-3"), this);
    rateHint->setForegroundRole(QPalette::PlaceholderText);
    rateRow->addWidget(m_learningRate);
    rateRow->addWidget(rateHint);
    rateRow->addStretch(1);
    form->addRow(tr("Learning rate:"), rateRow);

    m_heads = makeChoice(QStringLiteral("profileHeads"),
                         P::kHeadChoices,
                         static_cast<int>(std::size(P::kHeadChoices)),
                         values.heads);
    form->addRow(tr("Heads:"), m_heads);
    m_layers = makeChoice(QStringLiteral("profileLayers"),
                          P::kLayerChoices,
                          static_cast<int>(std::size(P::kLayerChoices)),
                          values.layers);
    form->addRow(tr("Layers:"), m_layers);
    m_threads = makeChoice(QStringLiteral("profileThreads"),
                           P::kThreadChoices,
                           static_cast<int>(std::size(P::kThreadChoices)),
                           values.threads);
    form->addRow(tr("Threads:"), m_threads);
    m_useBpe = new QCheckBox(tr("Use BPE tokenizer (8K vocab)"), this);
    m_useBpe->setObjectName(QStringLiteral("profileUseBPE"));
    m_useBpe->setChecked(values.useBPE);
    form->addRow(QString(), m_useBpe);
    m_startFromBuiltIn = new QCheckBox(tr("Start from the built-in encoder"), this);
    m_startFromBuiltIn->setObjectName(QStringLiteral("profileStartFromBuiltIn"));
    m_startFromBuiltIn->setToolTip(
        tr("Train on from the encoder that ships with Tarnwick, with its own tokenizer, at a "
           "tenth of the learning rate"));
    m_startFromBuiltIn->setChecked(values.startFromBuiltIn);
    form->addRow(QString(), m_startFromBuiltIn);
    layout->addLayout(form);

    auto *dirsLabel = new QLabel(tr("Source Directories:"), this);
    layout->addWidget(dirsLabel);
    m_directories = new QListWidget(this);
    m_directories->setObjectName(QStringLiteral("profileDirectories"));
    m_directories->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_directories->setMinimumHeight(110);
    dirsLabel->setBuddy(m_directories);
    layout->addWidget(m_directories, 1);
    auto *dirButtons = new QHBoxLayout();
    auto *add = new QPushButton(themedIcon(QStringLiteral("list-add")), tr("Add\u2026"), this);
    add->setObjectName(QStringLiteral("addDirectoryButton"));
    add->setAutoDefault(false);
    m_remove = new QPushButton(themedIcon(QStringLiteral("list-remove")), tr("Remove"), this);
    m_remove->setObjectName(QStringLiteral("removeDirectoryButton"));
    m_remove->setAutoDefault(false);
    dirButtons->addWidget(add);
    dirButtons->addWidget(m_remove);
    dirButtons->addStretch(1);
    layout->addLayout(dirButtons);

    auto *buttons = new QDialogButtonBox(this);
    QPushButton *cancel = buttons->addButton(tr("Cancel"), QDialogButtonBox::RejectRole);
    cancel->setObjectName(QStringLiteral("cancelButton"));
    m_accept = buttons->addButton(profile ? tr("Save") : tr("Add"), QDialogButtonBox::AcceptRole);
    m_accept->setObjectName(QStringLiteral("acceptButton"));
    m_accept->setDefault(true);
    layout->addWidget(buttons);
    addDirectories(values.sourceDirectories); // the buttons exist now: it updates them

    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(add, &QPushButton::clicked, this, [this] {
        addDirectories(m_chooser(this));
    });
    connect(m_remove, &QPushButton::clicked, this, [this] {
        qDeleteAll(m_directories->selectedItems());
        syncButtons();
    });
    connect(m_directories, &QListWidget::itemSelectionChanged, this, &ProfileDialog::syncButtons);
    connect(m_name, &QLineEdit::textChanged, this, &ProfileDialog::syncButtons);
    syncButtons();
}

QComboBox *ProfileDialog::makeChoice(const QString &objectName, const int *choices, int count,
                                     int value)
{
    auto *box = new QComboBox(this);
    box->setObjectName(objectName);
    for (int i = 0; i < count; ++i) {
        box->addItem(QString::number(choices[i]), choices[i]);
    }
    int at = box->findText(QString::number(value));
    if (at < 0) {
        box->addItem(QString::number(value), value);
        at = box->count() - 1;
    }
    box->setCurrentIndex(at);
    box->setMinimumWidth(110);
    return box;
}

int ProfileDialog::choiceValue(const QComboBox *box)
{
    return box->currentData().toInt();
}

void ProfileDialog::addDirectories(const QStringList &paths)
{
    for (const QString &path : paths) {
        if (m_directories->findItems(path, Qt::MatchExactly).isEmpty()) {
            auto *item = new QListWidgetItem(
                themedIcon(QStringLiteral("folder"), QStyle::SP_DirIcon), path, m_directories);
            item->setToolTip(path);
        }
    }
    syncButtons();
}

void ProfileDialog::syncButtons()
{
    m_accept->setEnabled(!m_name->text().trimmed().isEmpty());
    m_remove->setEnabled(!m_directories->selectedItems().isEmpty());
}

TrainingProfile ProfileDialog::profile() const
{
    TrainingProfile result = m_original.value_or(TrainingProfile());
    result.name = m_name->text().trimmed();
    result.sourceDirectories.clear();
    for (int i = 0; i < m_directories->count(); ++i) {
        result.sourceDirectories.append(m_directories->item(i)->text());
    }
    result.steps = choiceValue(m_steps);
    result.batchSize = choiceValue(m_batch);
    result.learningRate = TrainingProfile::parseLearningRate(m_learningRate->text());
    result.heads = choiceValue(m_heads);
    result.layers = choiceValue(m_layers);
    result.threads = choiceValue(m_threads);
    result.useBPE = m_useBpe->isChecked();
    result.startFromBuiltIn = m_startFromBuiltIn->isChecked();
    return result;
}

/*
** status_bar.cpp -- status text, progress, branch, encoder choice and re-index.
*/
#include "status_bar.h"

#include "app_state.h"
#include "directory_state.h"
#include "icons.h"
#include "training_manager.h"

#include <QComboBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QToolButton>

StatusBarView::StatusBarView(AppState *app, TrainingManager *training, QWidget *parent)
    : QStatusBar(parent), m_app(app), m_training(training)
{
    setObjectName(QStringLiteral("statusBar"));
    setSizeGripEnabled(true);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setContentsMargins(6, 0, 6, 0);
    addWidget(m_status, 1);

    m_progress = new QProgressBar(this);
    m_progress->setObjectName(QStringLiteral("indexProgress"));
    m_progress->setFixedWidth(200);
    m_progress->setMaximumHeight(16);
    m_progress->setTextVisible(true);
    m_progress->setFormat(tr("%v of %m files"));
    m_progress->setVisible(false);
    addPermanentWidget(m_progress);

    auto *branchBox = new QWidget(this);
    auto *branchLayout = new QHBoxLayout(branchBox);
    branchLayout->setContentsMargins(8, 0, 8, 0);
    branchLayout->setSpacing(4);
    m_branchIcon = new QLabel(branchBox);
    const QIcon branchIcon =
        themedIcon(QStringList{QStringLiteral("vcs-branch"), QStringLiteral("git")});
    if (!branchIcon.isNull()) {
        m_branchIcon->setPixmap(branchIcon.pixmap(14, 14));
    } else {
        m_branchIcon->setText(QStringLiteral("\u2387")); // the alternative key symbol, a fork
    }
    m_branch = new QLabel(branchBox);
    m_branch->setObjectName(QStringLiteral("gitBranchLabel"));
    m_branch->setToolTip(tr("Git branch of this directory"));
    branchLayout->addWidget(m_branchIcon);
    branchLayout->addWidget(m_branch);
    addPermanentWidget(branchBox);

    m_encoder = new QComboBox(this);
    m_encoder->setObjectName(QStringLiteral("encoderPicker"));
    m_encoder->setToolTip(tr("Encoder for this directory"));
    m_encoder->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    m_encoder->setMinimumWidth(110);
    addPermanentWidget(m_encoder);
    connect(m_encoder, &QComboBox::activated, this, [this](int index) {
        const QUuid id(m_encoder->itemData(index).toString());
        if (m_state && id != m_state->overrideProfileId()) {
            m_state->setEncoderProfile(id);
        }
    });

    m_pause = new QToolButton(this);
    m_pause->setObjectName(QStringLiteral("pauseIndexingButton"));
    m_pause->setAutoRaise(true);
    connect(m_pause, &QToolButton::clicked, this, [this] {
        if (m_state) {
            m_state->setIndexingPaused(!m_state->isIndexingPaused());
        }
    });
    addPermanentWidget(m_pause);

    m_reindex = new QToolButton(this);
    m_reindex->setObjectName(QStringLiteral("reindexButton"));
    m_reindex->setText(tr("Re-index directory"));
    m_reindex->setToolTip(tr("Re-index directory (Ctrl+Shift+R)"));
    const QIcon refresh = themedIcon(QStringLiteral("view-refresh"), QStyle::SP_BrowserReload);
    m_reindexIcon = refresh;
    m_reindex->setIcon(paletteIcon(refresh, palette()));
    m_reindex->setToolButtonStyle(refresh.isNull() ? Qt::ToolButtonTextOnly
                                                   : Qt::ToolButtonIconOnly);
    m_reindex->setAutoRaise(true);
    connect(m_reindex, &QToolButton::clicked, this, &StatusBarView::reindexRequested);
    addPermanentWidget(m_reindex);

    connect(training, &TrainingManager::profilesChanged, this, &StatusBarView::syncEncoders);
    connect(app, &AppState::activeTabIdChanged, this, [this] {
        setState(m_app ? m_app->activeState() : nullptr);
    });
    connect(app, &AppState::tabsChanged, this, [this] {
        setState(m_app ? m_app->activeState() : nullptr);
    });
    setState(app->activeState());
}

void StatusBarView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        m_reindex->setIcon(paletteIcon(m_reindexIcon, palette()));
    }
    QStatusBar::changeEvent(event);
}

void StatusBarView::setState(DirectoryState *state)
{
    // The first call always runs: it hides the branch, encoder and re-index widgets of an empty
    // window.
    if (m_synced && state == m_state && (state || !m_stateLink)) {
        return;
    }
    m_synced = true;
    delete m_stateLink;
    m_stateLink = nullptr;
    m_state = state;
    if (state) {
        m_stateLink = new QObject(this);
        connect(state, &DirectoryState::statusTextChanged, m_stateLink, [this] {
            syncStatus();
        });
        connect(state, &DirectoryState::isIngestingChanged, m_stateLink, [this] {
            syncProgress();
        });
        connect(state, &DirectoryState::isIndexingPausedChanged, m_stateLink, [this] {
            syncProgress();
        });
        connect(state, &DirectoryState::ingestFilesDoneChanged, m_stateLink, [this] {
            syncProgress();
        });
        connect(state, &DirectoryState::ingestFilesFoundChanged, m_stateLink, [this] {
            syncProgress();
        });
        connect(state, &DirectoryState::gitBranchChanged, m_stateLink, [this] {
            syncBranch();
        });
        connect(state, &DirectoryState::overrideProfileIdChanged, m_stateLink, [this] {
            syncEncoders();
        });
    }
    for (QWidget *w : {static_cast<QWidget *>(m_encoder), static_cast<QWidget *>(m_reindex)}) {
        w->setVisible(state != nullptr);
    }
    syncStatus();
    syncProgress();
    syncBranch();
    syncEncoders();
}

void StatusBarView::syncStatus()
{
    m_status->setText(m_state ? m_state->statusText() : tr("No directory open"));
}

void StatusBarView::syncProgress()
{
    const bool busy = m_state && m_state->isIngesting();
    m_progress->setVisible(busy);
    m_reindex->setEnabled(!busy);
    const bool paused = m_state && m_state->isIndexingPaused();
    m_pause->setVisible(busy || paused);
    m_pause->setText(paused ? tr("Resume indexing") : tr("Pause indexing"));
    if (!busy) {
        return;
    }
    const int found = m_state->ingestFilesFound();
    if (found <= 0) {
        m_progress->setRange(0, 0); // still walking the directory
    } else {
        m_progress->setRange(0, found);
        m_progress->setValue(qMin(m_state->ingestFilesDone(), found));
    }
}

void StatusBarView::syncBranch()
{
    const QString branch = m_state ? m_state->gitBranch() : QString();
    m_branch->setText(branch);
    m_branch->parentWidget()->setVisible(!branch.isEmpty());
}

void StatusBarView::syncEncoders()
{
    m_encoder->clear();
    // With no trained default profile, the default is the encoder that ships with the program.
    TrainingManager *manager = m_training;
    const QString defaults = manager->defaultWeightsPath();
    const bool builtIn = !defaults.isEmpty() && defaults == manager->builtInWeightsPath();
    m_encoder->addItem(builtIn ? tr("Built-in") : tr("Default"), QUuid().toString());
    for (const TrainingProfile &profile : manager->trainedProfiles()) {
        m_encoder->addItem(profile.name, profile.id.toString());
    }
    int current = 0;
    if (m_state && !m_state->overrideProfileId().isNull()) {
        const int found = m_encoder->findData(m_state->overrideProfileId().toString());
        current = found >= 0 ? found : 0;
    }
    m_encoder->setCurrentIndex(current);
    m_reindex->setEnabled(!(m_state && m_state->isIngesting()));
}

/*
** status_bar.h -- the main window's status bar for the active tab: its status text, indexing
** progress (files done of files found), git branch, the encoder picker ("Default", or "Built-in"
** when no trained profile is the default and the built-in encoder is there, then every trained
** profile) and the "Re-index directory" button, which asks the main window to confirm
** (reindexRequested).
*/
#ifndef TRN_UI_STATUS_BAR_H
#define TRN_UI_STATUS_BAR_H

#include "app_state.h"
#include "directory_state.h"

#include <QIcon>
#include <QPointer>
#include <QStatusBar>

class QComboBox;
class QLabel;
class QProgressBar;
class QToolButton;
class TrainingManager;

class StatusBarView : public QStatusBar
{
    Q_OBJECT

public:
    // training: the application's training manager, for the encoder picker's choices.
    StatusBarView(AppState *app, TrainingManager *training, QWidget *parent = nullptr);

    QLabel *statusLabel() const { return m_status; }
    QProgressBar *progressBar() const { return m_progress; }
    QLabel *branchLabel() const { return m_branch; }
    QComboBox *encoderPicker() const { return m_encoder; }
    QToolButton *reindexButton() const { return m_reindex; }
    QToolButton *pauseButton() const { return m_pause; }

protected:
    void changeEvent(QEvent *event) override;

signals:
    // "Re-index directory" was pressed.
    void reindexRequested();

private:
    void setState(DirectoryState *state);
    void syncStatus();
    void syncProgress();
    void syncBranch();
    void syncEncoders();

    QPointer<AppState> m_app;
    TrainingManager *m_training;
    QPointer<DirectoryState> m_state;
    QObject *m_stateLink = nullptr; // context of the connections to m_state
    QLabel *m_status;
    QProgressBar *m_progress;
    QLabel *m_branchIcon;
    QLabel *m_branch;
    QComboBox *m_encoder;
    QToolButton *m_reindex;
    QToolButton *m_pause;  // shown while indexing: Pause, or Resume when paused
    QIcon m_reindexIcon;   // the theme's, drawn in the palette's colour on the button
    bool m_synced = false; // setState has shown the widgets for a state (or for none)
};

#endif

/*
** settings_window.h -- the settings window: "General" (appearance, chunk size, overlap,
** "Additional File Types", the two context panel check boxes) and "Encoder Training" (the
** training profiles with train, cancel, edit, delete, loss chart and default choice).
**
** Every control writes its setting at once through the model's Settings and follows the
** setting's change signal, so two windows, or a window and the model, never disagree.
*/
#ifndef TRN_UI_SETTINGS_WINDOW_H
#define TRN_UI_SETTINGS_WINDOW_H

#include "profile_dialog.h"
#include "settings.h"
#include "training_manager.h"
#include "training_profile.h"

#include <QFrame>
#include <QMessageBox>
#include <QPointer>
#include <QUuid>
#include <QWidget>

class LossChartWindow;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTabWidget;
class QToolButton;
class QVBoxLayout;

// One profile in the "Encoder Training" list.
class ProfileRow : public QFrame
{
    Q_OBJECT

public:
    ProfileRow(const TrainingProfile &profile, QWidget *parent = nullptr);
    QUuid profileId() const { return m_id; }
    // Updates the texts and buttons from the manager.
    void sync(const TrainingProfile &profile, bool isDefault, bool isTraining,
              const QString &progress);

signals:
    void trainRequested();
    void cancelRequested();
    void editRequested();
    void deleteRequested();
    void lossChartRequested();
    void makeDefaultRequested();

private:
    QUuid m_id;
    QLabel *m_name;
    QLabel *m_badge;
    QLabel *m_status;
    QLabel *m_progress;
    QPushButton *m_train;
    QPushButton *m_cancel;
    QPushButton *m_default;
    QToolButton *m_chart;
    QToolButton *m_edit;
    QToolButton *m_delete;
};

class SettingsWindow : public QWidget
{
    Q_OBJECT

public:
    // manager is the application's training manager; settings (never NULL) outlive the window.
    explicit SettingsWindow(TrainingManager *manager, Settings *settings,
                            QWidget *parent = nullptr);

    QTabWidget *tabs() const { return m_tabs; }
    void showTrainingPage();
    QList<ProfileRow *> profileRows() const;
    ProfileRow *rowFor(const QUuid &id) const;

    // The panels this window opened (tests find and drive them).
    ProfileDialog *openProfileDialog() const { return m_dialog; }
    QMessageBox *openDeleteConfirmation() const { return m_confirmation; }
    LossChartWindow *lossChart(const QUuid &id) const;

    // "Delete “<name>” and its weights file? This cannot be undone."
    static QString deleteConfirmationText(const QString &profileName);

    // Opens the profile panel: new when id is null, else editing that profile.
    void openProfilePanel(const QUuid &id);
    void confirmDelete(const QUuid &id);
    void showLossChart(const QUuid &id);

private:
    // Why a chunk size and overlap cannot be used together; empty when they can.
    static QString chunkingProblem(int chunkSize, int overlap);
    void applyChunking();
    void syncChunkingProblem();
    void syncEditorHelp();
    // The window whose screen the settings' own windows open on: the main window when there is
    // one.
    QWidget *anchorWindow();
    QWidget *buildGeneralPage();
    QWidget *buildTrainingPage();
    void syncGeneral();
    void syncProfiles();
    void syncProgress();

    QPointer<Settings> m_settings;
    QPointer<TrainingManager> m_manager;
    QTabWidget *m_tabs;
    QComboBox *m_appearance;
    QSpinBox *m_chunkSize;
    QSpinBox *m_overlap;
    QLabel *m_chunkingProblem;
    QComboBox *m_editor;
    QLineEdit *m_editorCommand;
    QLabel *m_editorHelp;
    QLineEdit *m_extensions;
    QLineEdit *m_excludePatterns;
    QSpinBox *m_maxFileSize;
    QCheckBox *m_hoverPreview;
    QCheckBox *m_previewBelow;
    QLabel *m_noProfiles;
    QVBoxLayout *m_rows;
    QLabel *m_progress;
    QPointer<ProfileDialog> m_dialog;
    QPointer<QMessageBox> m_confirmation;
    QList<QPointer<LossChartWindow>> m_charts;
};

#endif

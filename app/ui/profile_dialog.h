/*
** profile_dialog.h -- the profile panel: "New Training Profile" (button "Add") or "Edit Training
** Profile" (button "Save").
**
** Controls: "Name:" (placeholder "e.g. Swedish, English, Mixed"), "Steps:", "Batch:", learning
** rate (a text field; text that does not parse reads as 0.001), "Heads:", "Layers:", "Threads:",
** "Use BPE tokenizer (8K vocab)", and "Source Directories:" with add and "Remove". The pop-ups
** offer TrainingProfile's choices; editing selects the item titled with the profile's value (a
** stored value outside the choices is added as its own item so that saving keeps it). The
** accepting button is enabled once the name holds more than white space.
*/
#ifndef TRN_UI_PROFILE_DIALOG_H
#define TRN_UI_PROFILE_DIALOG_H

#include "training_profile.h"

#include <QDialog>

#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QListWidget;
class QPushButton;

class ProfileDialog : public QDialog
{
    Q_OBJECT

public:
    using DirectoryChooser = std::function<QStringList(QWidget *parent)>;

    // A new profile when profile is nullopt, else an edit of it.
    explicit ProfileDialog(const std::optional<TrainingProfile> &profile,
                           QWidget *parent = nullptr);

    // The panel's values over the edited profile (or a new draft): name, directories and the
    // parameters; id, weights path, status and last-trained date come from the edited profile.
    TrainingProfile profile() const;
    bool isEditing() const { return m_original.has_value(); }

    // Replaces the folder chooser of the add button (tests).
    void setDirectoryChooser(DirectoryChooser chooser) { m_chooser = std::move(chooser); }
    void addDirectories(const QStringList &paths);

    QPushButton *acceptButton() const { return m_accept; }

private:
    QComboBox *makeChoice(const QString &objectName, const int *choices, int count, int value);
    static int choiceValue(const QComboBox *box);
    void syncButtons();

    std::optional<TrainingProfile> m_original;
    DirectoryChooser m_chooser;
    QLineEdit *m_name;
    QComboBox *m_steps;
    QComboBox *m_batch;
    QLineEdit *m_learningRate;
    QComboBox *m_heads;
    QComboBox *m_layers;
    QComboBox *m_threads;
    QCheckBox *m_useBpe;
    QCheckBox *m_startFromBuiltIn;
    QListWidget *m_directories;
    QPushButton *m_remove;
    QPushButton *m_accept;
};

#endif

/*
** missing_folder_bar.h -- the line above the results that names a saved tab whose folder was not
** found when the tabs were restored, with "Locate…" (the folder's new place: the tab opens there
** and keeps its history and pins) and "Forget" (the tab is dropped). Hidden while no tab is
** missing; with several, the first is named and the others counted.
*/
#ifndef TRN_APP_MISSING_FOLDER_BAR_H
#define TRN_APP_MISSING_FOLDER_BAR_H

#include <QPointer>
#include <QWidget>

#include <functional>

class AppState;
class QLabel;
class QPushButton;

class MissingFolderBar : public QWidget
{
    Q_OBJECT

public:
    // Asks where the folder that was at missingPath is now; empty when the person cancels.
    using Locator = std::function<QString(QWidget *parent, const QString &missingPath)>;

    // app must outlive the bar.
    explicit MissingFolderBar(AppState *app, QWidget *parent = nullptr);

    // Replaces the folder chooser of "Locate…" (tests).
    void setLocator(Locator locator) { m_locator = std::move(locator); }
    // The one-line text shown for these missing paths.
    static QString message(const QStringList &missing);

private:
    void sync();
    void locate();

    QPointer<AppState> m_app;
    Locator m_locator;
    QLabel *m_text;
    QPushButton *m_locate;
    QPushButton *m_forget;
};

#endif

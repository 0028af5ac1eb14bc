/*
** help_window.h -- "Tarnwick Help" (Ctrl+/): the application's own help pages, shipped inside
** the executable as the Qt resource ":/help", with a contents list and back and forward.
*/
#ifndef TRN_UI_HELP_WINDOW_H
#define TRN_UI_HELP_WINDOW_H

#include <QStringList>
#include <QUrl>
#include <QWidget>

class QListWidget;
class Settings;
class QTextBrowser;

class HelpWindow : public QWidget
{
    Q_OBJECT

public:
    // settings keep the window's frame; they outlive the window.
    explicit HelpWindow(Settings *settings, QWidget *parent = nullptr);

    // Shows a page by file name ("index.html" is the first page).
    void showPage(const QString &page);
    QTextBrowser *browser() const { return m_browser; }
    QListWidget *contents() const { return m_contents; }

    // The pages in contents order, as (file name, title).
    static QList<std::pair<QString, QString>> pages();
    static QUrl pageUrl(const QString &page);

private:
    QListWidget *m_contents;
    QTextBrowser *m_browser;
};

#endif

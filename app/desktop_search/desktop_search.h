/*
** desktop_search.h -- what the desktop's search providers answer with: the indexes of the
** folders open in the application, searched as the user types in GNOME's overview or KRunner.
**
** Each folder's engine is opened on first use and kept, so a keystroke costs one search per
** folder, not a load; a handle reloads by itself when the application has updated the index. A
** folder's index is searched in Hybrid mode when it was built with the encoder the application
** would use for it now (encoder_record.h), else by words only (Keyword), since vectors of
** another encoder would not compare.
**
** A result's identifier is "<line>:<path>", so that opening it needs no state kept between the
** calls of the desktop (which may come long after the search, or from another process's view).
*/
#ifndef TRN_DESKTOP_SEARCH_H
#define TRN_DESKTOP_SEARCH_H

#include "index_handle.h"

#include <QMap>
#include <QString>
#include <QStringList>

#include <memory>

class Settings;
class TrainingManager;

class DesktopSearch
{
public:
    // Queries shorter than this many characters get no results: each would match too much to
    // be of use, and the desktop asks again as the user types on.
    static constexpr int kMinQueryLength = 3;

    // settings gives the open folders and the editor; training the encoder of each folder. Both
    // must outlive this object.
    DesktopSearch(Settings *settings, TrainingManager *training);

    // The best k passages of the open folders' indexes for the words, merged by rank.
    QList<SearchResult> search(const QStringList &terms, int k);

    static QString idOf(const SearchResult &result);
    // The file and line of an identifier from idOf; false for anything else.
    static bool parseId(const QString &id, QString *path, int *line);

    // Opens the result an identifier names in the editor at its line (as the application
    // opens results); false when the identifier is malformed or names no file of an open
    // folder.
    bool open(const QString &id);
    // Starts the application with the words in its search bar ("tarnwick --query WORDS").
    bool launchApplication(const QStringList &terms);

private:
    QStringList openFolders();
    IndexHandle *engineFor(const QString &folder, SearchMode *mode);

    struct Index {
        std::unique_ptr<IndexHandle> engine;
        QString weights;
        SearchMode mode = SearchMode::Hybrid;
    };
    Settings *m_settings;
    TrainingManager *m_training;
    QMap<QString, std::shared_ptr<Index>> m_indexes; // by folder
};

#endif

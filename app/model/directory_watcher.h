/*
** directory_watcher.h -- tells a tab when its directory changed and the changes settled.
**
** It wraps the engine's watch (trn_watch_open: inotify on every directory of the tree, or a
** comparison of sizes and times when the system's watch limit is reached). With inotify a
** QSocketNotifier on the main thread reads the events; in the fallback the comparison runs on the
** thread pool every kPollMs. Each change restarts the settle timer; settled() is emitted once no
** change came for settleMs, so an editor's save or a checkout of many files gives one update.
**
** The watch shares nothing with engine handles, so its calls take no engine lock.
*/
#ifndef TRN_APP_DIRECTORY_WATCHER_H
#define TRN_APP_DIRECTORY_WATCHER_H

#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>

class FileWalkOptions;
class QSocketNotifier;
struct TrnWatch;

class DirectoryWatcher : public QObject
{
    Q_OBJECT

public:
    // How often the fallback compares the tree.
    static constexpr int kPollMs = 5000;

    // Starts watching directoryPath, except what walk excludes (changes there never start an
    // update). settleMs: quiet time before settled() (0 or more).
    DirectoryWatcher(const QString &directoryPath, int settleMs, const FileWalkOptions &walk,
                     QObject *parent = nullptr);
    ~DirectoryWatcher() override;

    // False when the directory could not be watched at all (it does not exist).
    bool isWatching() const { return m_watch != nullptr; }
    // True when the watch fell back to comparing sizes and times.
    bool isPolling() const;

signals:
    // Something changed below the directory, and nothing more for settleMs.
    void settled();

private:
    void readEvents();
    void poll();

    std::shared_ptr<TrnWatch> m_watch; // shared with a running comparison
    QSocketNotifier *m_notifier = nullptr;
    QTimer m_settle;
    QTimer m_pollTimer;
    bool m_polling = false; // a comparison runs on the pool
};

#endif

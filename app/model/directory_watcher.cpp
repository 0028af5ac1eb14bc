/*
** directory_watcher.cpp -- the engine's directory watch on the main thread's event loop.
*/
#include "directory_watcher.h"

#include "background.h"
#include "tarnwick.h"
#include "walk_options.h"

#include <QFile>
#include <QSocketNotifier>

DirectoryWatcher::DirectoryWatcher(const QString &directoryPath, int settleMs,
                                   const FileWalkOptions &walk, QObject *parent)
    : QObject(parent)
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(qMax(0, settleMs));
    connect(&m_settle, &QTimer::timeout, this, &DirectoryWatcher::settled);
    const QByteArray path = QFile::encodeName(directoryPath);
    TrnWatch *watch = trn_watch_open(path.constData(), walk.options());
    if (!watch) {
        return;
    }
    m_watch = std::shared_ptr<TrnWatch>(watch, trn_watch_close);
    const int fd = trn_watch_fd(watch);
    if (fd >= 0) {
        m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &DirectoryWatcher::readEvents);
    } else {
        m_pollTimer.setInterval(kPollMs);
        connect(&m_pollTimer, &QTimer::timeout, this, &DirectoryWatcher::poll);
        m_pollTimer.start();
    }
}

DirectoryWatcher::~DirectoryWatcher() = default;

bool DirectoryWatcher::isPolling() const
{
    return m_watch && m_notifier == nullptr;
}

void DirectoryWatcher::readEvents()
{
    if (trn_watch_changed(m_watch.get())) {
        m_settle.start(); // restarts: the changes have not settled yet
    }
    // A new directory beyond the watch limit turns the watch into a comparison.
    if (trn_watch_fd(m_watch.get()) < 0 && m_notifier) {
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
        m_notifier = nullptr;
        connect(&m_pollTimer, &QTimer::timeout, this, &DirectoryWatcher::poll);
        m_pollTimer.start(kPollMs);
    }
}

void DirectoryWatcher::poll()
{
    if (m_polling) {
        return;
    }
    m_polling = true;
    std::shared_ptr<TrnWatch> watch = m_watch;
    // Walking a large tree takes a while: off the main thread.
    runInBackground(
        this,
        [watch] {
            return trn_watch_changed(watch.get()) == 1;
        },
        [this](bool changed) {
            m_polling = false;
            if (changed) {
                m_settle.start();
            }
        });
}

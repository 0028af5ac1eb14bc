/*
** background.h -- the model's hand-off of work to the thread pool and of its result back, on
** QtConcurrent.
**
** runInBackground(receiver, job, done) runs job() on QThreadPool::globalInstance(), then
** done(result) on receiver's thread through a QFutureWatcher that receiver owns. When receiver is
** destroyed first, the watcher goes with it and done is dropped; the job still runs to its end,
** so it holds what it uses by value or by shared pointer.
**
** The hand-offs are marked for ThreadSanitizer: Qt's own queues synchronise inside libQt6Core,
** which is not built with TSan, so without the marks every hand-off would read as a data race in
** `make tsan`. The marks change nothing in other builds.
*/
#ifndef TRN_APP_BACKGROUND_H
#define TRN_APP_BACKGROUND_H

#include <QFutureWatcher>
#include <QObject>
#include <QPromise>
#include <QtConcurrent/QtConcurrentRun>

#include <limits>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

// What one thread did before handOffRelease(token) is seen by another after
// handOffAcquire(token).
void handOffRelease(const void *token);
void handOffAcquire(const void *token);

// runInBackground for a job that reports progress: job(report) calls report(value) with a
// Progress value as it goes and returns the result; progress(value) runs on receiver's thread
// with the latest value reported (Qt merges reports that come faster than it shows them), and
// once more before done when the last report had not been shown yet.
template <typename Result, typename Progress, typename Job, typename OnProgress, typename Done>
void runWithProgress(QObject *receiver, Job job, OnProgress progress, Done done)
{
    struct Latest {
        std::mutex mutex;
        Progress value{}; // guarded by mutex
        int reports = 0;  // guarded by mutex
        int shown = 0;    // read and written on receiver's thread only
    };
    const auto token = std::make_shared<char>();
    const auto latest = std::make_shared<Latest>();
    auto *watcher = new QFutureWatcher<Result>(receiver);
    auto show = [latest, progress = std::move(progress)] {
        Progress value;
        {
            std::lock_guard<std::mutex> lock(latest->mutex);
            if (latest->reports == latest->shown) {
                return;
            }
            latest->shown = latest->reports;
            value = latest->value;
        }
        progress(value);
    };
    QObject::connect(watcher, &QFutureWatcherBase::progressValueChanged, receiver, show);
    QObject::connect(watcher,
                     &QFutureWatcherBase::finished,
                     receiver,
                     [watcher, token, show, done = std::move(done)]() mutable {
                         watcher->deleteLater();
                         handOffAcquire(token.get());
                         show();
                         if constexpr (std::is_void_v<Result>) {
                             done();
                         } else {
                             done(watcher->result());
                         }
                     });
    handOffRelease(token.get());
    watcher->setFuture(
        QtConcurrent::run([job = std::move(job), token, latest](QPromise<Result> &promise) mutable {
            handOffAcquire(token.get());
            promise.setProgressRange(0, std::numeric_limits<int>::max());
            auto report = [&promise, &latest](const Progress &value) {
                int reports = 0;
                {
                    std::lock_guard<std::mutex> lock(latest->mutex);
                    latest->value = value;
                    reports = ++latest->reports;
                }
                promise.setProgressValue(reports); // wakes the watcher, which reads latest
            };
            if constexpr (std::is_void_v<Result>) {
                job(report);
            } else {
                promise.addResult(job(report));
            }
            handOffRelease(token.get());
        }));
}

template <typename Job, typename Done>
void runInBackground(QObject *receiver, Job job, Done done)
{
    using Result = std::invoke_result_t<Job &>;
    runWithProgress<Result, bool>(
        receiver,
        [job = std::move(job)](const auto &) mutable {
            return job();
        },
        [](bool) {},
        std::move(done));
}

#endif

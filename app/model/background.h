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

#include <memory>
#include <type_traits>
#include <utility>

// What one thread did before handOffRelease(token) is seen by another after
// handOffAcquire(token).
void handOffRelease(const void *token);
void handOffAcquire(const void *token);

// runInBackground for a job that reports progress: job(promise) gets the QPromise of its Result,
// sets its progress range, value and text as it goes and returns the result; progress(watcher)
// runs on receiver's thread whenever they change, to read them from the watcher.
template <typename Result, typename Job, typename Progress, typename Done>
void runWithProgress(QObject *receiver, Job job, Progress progress, Done done)
{
    const auto token = std::make_shared<char>();
    auto *watcher = new QFutureWatcher<Result>(receiver);
    auto show = [watcher, progress = std::move(progress)] {
        progress(*watcher);
    };
    QObject::connect(watcher, &QFutureWatcherBase::progressRangeChanged, receiver, show);
    QObject::connect(watcher, &QFutureWatcherBase::progressValueChanged, receiver, show);
    QObject::connect(watcher,
                     &QFutureWatcherBase::finished,
                     receiver,
                     [watcher, token, done = std::move(done)]() mutable {
                         watcher->deleteLater();
                         handOffAcquire(token.get());
                         if constexpr (std::is_void_v<Result>) {
                             done();
                         } else {
                             done(watcher->result());
                         }
                     });
    handOffRelease(token.get());
    watcher->setFuture(
        QtConcurrent::run([job = std::move(job), token](QPromise<Result> &promise) mutable {
            handOffAcquire(token.get());
            if constexpr (std::is_void_v<Result>) {
                job(promise);
            } else {
                promise.addResult(job(promise));
            }
            handOffRelease(token.get());
        }));
}

template <typename Job, typename Done>
void runInBackground(QObject *receiver, Job job, Done done)
{
    using Result = std::invoke_result_t<Job &>;
    runWithProgress<Result>(
        receiver,
        [job = std::move(job)](QPromise<Result> &) mutable {
            return job();
        },
        [](const QFutureWatcher<Result> &) {},
        std::move(done));
}

#endif

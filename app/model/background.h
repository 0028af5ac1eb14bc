/*
** background.h -- the two hand-offs of the model: work to the thread pool, results back to the
** main thread.
**
** Both go through objects allocated here and marked for ThreadSanitizer: Qt's own queues
** synchronise inside libQt6Core, which is not built with TSan, so without the marks every
** hand-off would read as a data race in `make tsan`. The marks change nothing in other builds.
*/
#ifndef TRN_APP_BACKGROUND_H
#define TRN_APP_BACKGROUND_H

#include <functional>

// Runs job on QThreadPool::globalInstance(). The job gets its inputs by value.
void runInBackground(std::function<void()> job);

// Runs call on the main thread from its event loop (queued, also when called there). Model
// objects call prepareMainThreadCalls() from their constructors, on the main thread, before any
// worker can call this.
void runOnMainThread(std::function<void()> call);
void prepareMainThreadCalls();

#endif

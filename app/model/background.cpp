#include "background.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QRunnable>
#include <QThreadPool>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define TRN_HANDOFF_RELEASE(p) __tsan_release(p)
#define TRN_HANDOFF_ACQUIRE(p) __tsan_acquire(p)
#else
#define TRN_HANDOFF_RELEASE(p) ((void)(p))
#define TRN_HANDOFF_ACQUIRE(p) ((void)(p))
#endif

namespace
{

class BackgroundJob : public QRunnable
{
public:
    explicit BackgroundJob(std::function<void()> job) : m_job(std::move(job)) {}
    void run() override
    {
        TRN_HANDOFF_ACQUIRE(this);
        m_job();
    }

private:
    std::function<void()> m_job;
};

const QEvent::Type kMainThreadCallEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

class MainThreadCall : public QEvent
{
public:
    explicit MainThreadCall(std::function<void()> call)
        : QEvent(kMainThreadCallEvent), m_call(std::move(call))
    {
    }
    void run() { m_call(); }

private:
    std::function<void()> m_call;
};

// Lives on the main thread and runs the calls posted to it.
class MainThreadDispatcher : public QObject
{
public:
    bool event(QEvent *e) override
    {
        if (e->type() != kMainThreadCallEvent) {
            return QObject::event(e);
        }
        TRN_HANDOFF_ACQUIRE(e);
        static_cast<MainThreadCall *>(e)->run();
        return true;
    }
};

MainThreadDispatcher *dispatcher()
{
    static MainThreadDispatcher *instance = [] {
        auto *d = new MainThreadDispatcher;
        if (QCoreApplication::instance()) {
            d->moveToThread(QCoreApplication::instance()->thread());
        }
        return d;
    }();
    return instance;
}

} // namespace

void runInBackground(std::function<void()> job)
{
    auto *runnable = new BackgroundJob(std::move(job));
    TRN_HANDOFF_RELEASE(runnable);
    QThreadPool::globalInstance()->start(runnable);
}

void prepareMainThreadCalls()
{
    dispatcher();
}

void runOnMainThread(std::function<void()> call)
{
    auto *event = new MainThreadCall(std::move(call));
    TRN_HANDOFF_RELEASE(event);
    QCoreApplication::postEvent(dispatcher(), event);
}

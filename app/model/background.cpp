#include "background.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

void handOffRelease(const void *token)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(const_cast<void *>(token));
#else
    (void)token;
#endif
}

void handOffAcquire(const void *token)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void *>(token));
#else
    (void)token;
#endif
}

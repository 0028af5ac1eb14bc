/*
** alloc.cpp -- the engine's allocation functions. Every allocation reachable from a handle goes
** through xmalloc, xcalloc or xrealloc, which never return NULL: a failure prints one line and
** ends the process, so no engine function has an out-of-memory path of its own.
**
** g_alloc_fail_countdown lets a test make the Nth allocation fail, to check that the failure
** really ends in oom_abort.
**
** The engine's informational lines go through verbose_note(), which trn_set_verbose switches off
** for front ends that keep standard error for problems.
*/
#include "internal.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

long g_alloc_fail_countdown = 0;

/* On by default, so a C caller that never asks sees the lines it always saw. Atomic, since
** handles on other threads read it while one thread sets it. */
static std::atomic<int32_t> g_verbose{1};

void verbose_note(const char *fmt, ...)
{
    if (!g_verbose.load(std::memory_order_relaxed)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    fputs("tarnwick: ", stderr);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
}

bool alloc_should_fail(void)
{
    if (g_alloc_fail_countdown <= 0) {
        return false;
    }
    g_alloc_fail_countdown -= 1;
    return g_alloc_fail_countdown == 0;
}

void oom_abort(void)
{
    fputs("tarnwick: OOM\n", stderr);
    exit(1);
}

void oom_abort_sized(const char *fmt, size_t size)
{
    fprintf(stderr, fmt, size);
    exit(1);
}

size_t xmul(size_t a, size_t b)
{
    if (b != 0 && a > SIZE_MAX / b) {
        oom_abort();
    }
    return a * b;
}

void *xmalloc(size_t n)
{
    void *p = alloc_should_fail() ? nullptr : malloc(n ? n : 1);
    if (!p) {
        oom_abort();
    }
    return p;
}

void *xcalloc(size_t count, size_t size)
{
    void *p = alloc_should_fail() ? nullptr : calloc(count ? count : 1, size ? size : 1);
    if (!p) {
        oom_abort();
    }
    return p;
}

void advise_huge_pages(void *p, size_t n)
{
    constexpr uintptr_t HUGE = (uintptr_t)2 << 20;
    uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    uintptr_t begin = ((uintptr_t)p + page - 1) & ~(page - 1);
    uintptr_t end = ((uintptr_t)p + n) & ~(page - 1);
    if (n >= HUGE && end > begin) {
        madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
    }
}

void *xrealloc(void *p, size_t n)
{
    void *q = alloc_should_fail() ? nullptr : realloc(p, n ? n : 1);
    if (!q) {
        oom_abort();
    }
    return q;
}

char *xstrdup(const char *s)
{
    size_t n = strlen(s);
    char *copy = static_cast<char *>(xmalloc(n + 1));
    memcpy(copy, s, n + 1);
    return copy;
}

extern "C" {

void trn_set_verbose(int32_t on)
{
    g_verbose.store(on != 0 ? 1 : 0, std::memory_order_relaxed);
}

} // extern "C"

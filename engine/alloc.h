/*
** alloc.h -- allocation and informational lines (alloc.cpp), what every part of the engine uses.
*/
#ifndef TRN_ALLOC_H
#define TRN_ALLOC_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/* None of these returns NULL: on failure oom_abort() prints "tarnwick: OOM" and exits with
** status 1. */
[[noreturn]] void oom_abort(void);
/* Prints fmt (with size) to stderr and exits with status 1; the encoder and tokenizer variants. */
[[noreturn]] void oom_abort_sized(const char *fmt, size_t size);
void *xmalloc(size_t n);
void *xcalloc(size_t count, size_t size);
void *xrealloc(void *p, size_t n);
char *xstrdup(const char *s);
/* a * b, or oom_abort() when the product overflows size_t. */
size_t xmul(size_t a, size_t b);
/* A hint that the n bytes at p, a table about to be filled whole, be backed by 2 MiB pages
** where the system allows: filling 100 MB then takes some fifty page faults instead of some
** 25,000. Nothing for less than 2 MiB. */
void advise_huge_pages(void *p, size_t n);

/* Test hook: when set to N > 0, the Nth allocation from now fails (and ends the process through
** oom_abort). 0 disables it. Process-wide. */
extern long g_alloc_fail_countdown;
/* Returns true when the current allocation must fail (counts the hook down). */
bool alloc_should_fail(void);

/* Informational lines on stderr ("tarnwick: " + fmt), printed only while trn_set_verbose is on
** (alloc.cpp). Process-wide, like the allocation hook. */
void verbose_note(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* An allocator over xmalloc for standard containers inside the engine. */
template <typename T>
struct XAllocator {
    using value_type = T;
    XAllocator() = default;
    template <typename U>
    XAllocator(const XAllocator<U> &) noexcept
    {
    }
    T *allocate(size_t n) { return static_cast<T *>(xmalloc(xmul(n, sizeof(T)))); }
    void deallocate(T *p, size_t) noexcept { free(p); }
    template <typename U>
    bool operator==(const XAllocator<U> &) const noexcept
    {
        return true;
    }
};

#endif /* TRN_ALLOC_H */

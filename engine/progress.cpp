/*
** progress.cpp -- the progress line of long jobs over files, shared by the application's status
** bar and tarnwick-cli, so both say the same thing the same way.
*/
#include "internal.h"

#include <cmath>
#include <cstring>

extern "C" {

int32_t trn_duration_text(double seconds, char *out, size_t size)
{
    double rounded = std::round(seconds);
    long s = rounded >= 1.0 ? (rounded < 1e9 ? (long)rounded : 1000000000L) : 1;
    if (s < 60) {
        return (int32_t)snprintf(out, size, "%ld s", s);
    }
    long minutes = (s + 30) / 60;
    if (minutes < 60) {
        return (int32_t)snprintf(out, size, "%ld min", minutes);
    }
    return (int32_t)snprintf(out, size, "%ld h %02ld min", minutes / 60, minutes % 60);
}

int32_t trn_progress_text(const char *verb, int32_t done, int32_t found, uint32_t chunks,
                          double seconds, char *out, size_t size)
{
    return trn_progress_line(verb, done, found, chunks, seconds, 0, 0, out, size);
}

int32_t trn_progress_line(const char *verb, int32_t done, int32_t found, uint32_t chunks,
                          double seconds, uint64_t bytes_done, uint64_t bytes_all, char *out,
                          size_t size)
{
    if (!verb) {
        verb = "";
    }
    if (found < 1 && done < 1) {
        return (int32_t)snprintf(out, size, "%s: looking for files...", verb);
    }
    char rate[48] = "";
    if (seconds > 0.0 && chunks > 0) {
        snprintf(rate, sizeof rate, ", %.1f chunks/s", chunks / seconds);
    }
    char left[48] = "";
    if (done > 0 && done < found && seconds > 0.0) {
        /* Files differ in size by orders of magnitude, so their count is a poor clock. */
        const bool by_bytes = bytes_all > 0 && bytes_done > 0 && bytes_done <= bytes_all;
        const double to_come = by_bytes ? (double)(bytes_all - bytes_done) / (double)bytes_done
                                        : (double)(found - done) / (double)done;
        char time[32];
        trn_duration_text(seconds * to_come, time, sizeof time);
        snprintf(left, sizeof left, ", about %s left", time);
    }
    if (found < 1) { /* files are done as they are found: no total yet */
        return (int32_t)snprintf(out, size, "%s %d files, %u chunks%s", verb, done, chunks, rate);
    }
    return (int32_t)snprintf(
        out, size, "%s %d of %d files, %u chunks%s%s", verb, done, found, chunks, rate, left);
}

int32_t trn_meaning_line(int32_t files, uint64_t done, uint64_t all, uint64_t done_at_start,
                         double seconds, char *out, size_t size)
{
    char words[64] = "";
    if (files > 0) {
        snprintf(words, sizeof words, "words: all %d files \u00b7 ", files);
    }
    const unsigned percent = all > 0 && done <= all ? (unsigned)(done * 100 / all) : 100;
    char left[48] = "";
    if (seconds > 0.0 && done > done_at_start && done < all) {
        const double rate = (double)(done - done_at_start) / seconds;
        char time[32];
        trn_duration_text((double)(all - done) / rate, time, sizeof time);
        snprintf(left, sizeof left, ", about %s left", time);
    }
    return (int32_t)snprintf(out, size, "%smeaning: %u%%%s", words, percent, left);
}

void trn_update_progress(const TrnEngine *e, uint64_t *done, uint64_t *all)
{
    if (done) {
        *done = e ? e->update_bytes_done : 0;
    }
    if (all) {
        *all = e ? e->update_bytes_all : 0;
    }
}

} // extern "C"

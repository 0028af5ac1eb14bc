/*
** progress.h -- the one progress line of tarnwick-cli's long commands (index, and any later
** command that walks a directory).
**
** On a terminal the line redraws itself in place on standard error, at most ten times a second,
** with the engine's trn_progress_text, the line the application's status bar shows too:
**   Indexing 120 of 451 files, 3412 chunks, 85.2 chunks/s, about 4 min left
** When standard error is not a terminal it prints nothing at all, so logs and pipes get only the
** command's own result.
*/
#ifndef TRN_CLI_PROGRESS_H
#define TRN_CLI_PROGRESS_H

#include "common.h"

#include <cstdint>
#include <cstdio>
#include <string>

class ProgressLine
{
public:
    // verb starts the line ("Indexing"). Shown only when stream is a terminal.
    explicit ProgressLine(std::string verb, std::FILE *stream = stderr);
    // Clears a line that is still shown.
    ~ProgressLine();
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    bool shown() const { return m_enabled; }
    // files_found < 1 means the total is not known yet: no estimate of the time left. With
    // bytes_all > 0 the time left follows the bytes (trn_progress_line).
    void update(int files_done, int files_found, uint32_t chunks, uint64_t bytes_done = 0,
                uint64_t bytes_all = 0);
    // Shows text after the verb instead of the file counts (the meaning phase of an indexing).
    void update_text(const std::string &text, bool last);
    // Clears the line (the command then prints its result).
    void clear();

    // The text of one line after `seconds` of work (trn_progress_line).
    static std::string format(const std::string &verb, int files_done, int files_found,
                              uint32_t chunks, double seconds, uint64_t bytes_done = 0,
                              uint64_t bytes_all = 0);

private:
    void draw(const std::string &line, bool last);

    std::string m_verb;
    std::FILE *m_stream;
    bool m_enabled;
    bool m_drawn = false;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_last_drawn{};
};

#endif

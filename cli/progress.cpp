/*
** progress.cpp -- the redrawing progress line of the long commands.
*/
#include "progress.h"

#include <cmath>
#include <utility>

#include <unistd.h>

ProgressLine::ProgressLine(std::string verb, std::FILE *stream)
    : m_verb(std::move(verb)), m_stream(stream), m_enabled(isatty(fileno(stream)) == 1)
{
}

ProgressLine::~ProgressLine()
{
    clear();
}

std::string ProgressLine::duration_text(double seconds)
{
    long s = std::lround(seconds < 0 ? 0 : seconds);
    char text[48];
    if (s < 60) {
        std::snprintf(text, sizeof text, "%ld s", s < 1 ? 1 : s);
    } else if (s < 3600) {
        std::snprintf(text, sizeof text, "%ld min", (s + 30) / 60);
    } else {
        long minutes = (s + 30) / 60;
        std::snprintf(text, sizeof text, "%ld h %02ld min", minutes / 60, minutes % 60);
    }
    return text;
}

std::string ProgressLine::format(const std::string &verb, int files_done, int files_found,
                                 uint32_t chunks, double seconds)
{
    char head[160];
    if (files_found > 0) {
        std::snprintf(
            head, sizeof head, "%s: %d/%d files, ", verb.c_str(), files_done, files_found);
    } else {
        std::snprintf(head, sizeof head, "%s: %d files, ", verb.c_str(), files_done);
    }
    char rate[96];
    std::snprintf(rate,
                  sizeof rate,
                  "%u chunks, %.1f chunks/s",
                  chunks,
                  seconds > 0 ? chunks / seconds : 0.0);
    std::string line = std::string(head) + rate;
    // The time left assumes the files still to come take as long as those done so far; with no
    // file done yet there is nothing to go on.
    if (files_found > 0 && files_done > 0 && files_done < files_found && seconds > 0) {
        double left = seconds / files_done * (files_found - files_done);
        line += ", about " + duration_text(left) + " left";
    }
    return line;
}

void ProgressLine::update(int files_done, int files_found, uint32_t chunks)
{
    if (!m_enabled) {
        return;
    }
    Clock::time_point now = Clock::now();
    bool last = files_found > 0 && files_done >= files_found;
    if (!last && m_drawn && now - m_last_drawn < std::chrono::milliseconds(100)) {
        return;
    }
    m_last_drawn = now;
    std::string line = format(m_verb, files_done, files_found, chunks, seconds_since(m_start));
    std::fprintf(m_stream, "\r\033[K%s", line.c_str());
    std::fflush(m_stream);
    m_drawn = true;
}

void ProgressLine::clear()
{
    if (m_enabled && m_drawn) {
        std::fputs("\r\033[K", m_stream);
        std::fflush(m_stream);
        m_drawn = false;
    }
}

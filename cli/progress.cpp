/*
** progress.cpp -- the redrawing progress line of the long commands.
*/
#include "progress.h"

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

std::string ProgressLine::format(const std::string &verb, int files_done, int files_found,
                                 uint32_t chunks, double seconds, uint64_t bytes_done,
                                 uint64_t bytes_all)
{
    char line[256];
    trn_progress_line(verb.c_str(),
                      files_done,
                      files_found,
                      chunks,
                      seconds,
                      bytes_done,
                      bytes_all,
                      line,
                      sizeof line);
    return line;
}

void ProgressLine::update(int files_done, int files_found, uint32_t chunks, uint64_t bytes_done,
                          uint64_t bytes_all)
{
    if (!m_enabled) {
        return;
    }
    draw(
        format(
            m_verb, files_done, files_found, chunks, seconds_since(m_start), bytes_done, bytes_all),
        files_found > 0 && files_done >= files_found);
}

void ProgressLine::update_text(const std::string &text, bool last)
{
    if (m_enabled) {
        draw(m_verb + ": " + text, last);
    }
}

void ProgressLine::draw(const std::string &line, bool last)
{
    Clock::time_point now = Clock::now();
    if (!last && m_drawn && now - m_last_drawn < std::chrono::milliseconds(100)) {
        return;
    }
    m_last_drawn = now;
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

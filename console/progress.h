// Shows progress in one line of the terminal, on standard error. Each call overwrites the line. Shows nothing if
// standard error is not a terminal.
#pragma once

#include <cstdio>
#include <string>
#include <unistd.h>

namespace console
{

class progress
{
  public:
    progress() : is_shown_(isatty(STDERR_FILENO) == 1) {}
    ~progress() { clear(); }
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    void show(const std::string& text)
    {
        if (!is_shown_) return;
        std::fprintf(stderr, "\r\033[K%s", text.c_str());
        is_empty_ = false;
    }

    // Removes the line. Call it before you write anything else to the terminal.
    void clear()
    {
        if (is_empty_) return;
        std::fputs("\r\033[K", stderr);
        is_empty_ = true;
    }

  private:
    const bool is_shown_;
    bool is_empty_ = true;
};

} // namespace console

// A machine's kernel log: every text with its time, kept, followed and read by people.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kernel
{

constexpr int log_default_priority = 4; // of a text that names none: a warning

struct log_line {
    uint64_t tick = 0;
    int priority = log_default_priority; // 0 (emergency) to 7 (debug)
    std::string raw;                     // as it was printed, with "<n>" and line ends
    std::string text;                    // the line without "<n>" and its line end
};

class log
{
  public:
    // Keeps at most `capacity` lines, dropping the oldest.
    explicit log(size_t capacity = 65536) : capacity_(capacity > 0 ? capacity : 1) {}

    // Appends one printed text. A text without a line end is continued by the next one; empty lines are kept.
    // Any thread; never blocks on a follower's work beyond its own call.
    void append(uint64_t tick, std::string_view text);

    // A copy of all lines kept, oldest first.
    std::vector<log_line> lines() const;

    // The lines from number `first` on (0 is the first line ever), at most `limit`; `next` receives the number to
    // ask for next time. Lines dropped meanwhile are skipped.
    std::vector<log_line> lines_from(uint64_t first, size_t limit, uint64_t* next) const;

    // The raw texts of all lines kept, as one text: what a test compares.
    std::string raw() const;

    // Calls `seen` for each finished line from now on, in the printing context: it must not sleep and must not
    // print. Returns the handle for unfollow.
    int follow(std::function<void(const log_line&)> seen);
    void unfollow(int handle);

    void clear();

  private:
    mutable std::mutex mutex_;
    size_t capacity_;
    uint64_t first_number_ = 0;
    std::deque<log_line> lines_;
    bool last_is_open_ = false;
    int next_follower_ = 1;
    std::map<int, std::function<void(const log_line&)>> followers_;
};

// The way a log reader shows a line: "[    1.234567]" style seconds, then the text.
std::string format_line(const log_line& line);

} // namespace kernel

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
    std::string text;                       // without "<n>" and the line end
    int8_t priority = log_default_priority; // 0 (emergency) to 7 (debug)
    bool has_mark = false;                  // it was printed with its "<n>"
    bool has_end = false;                   // and with a line end

    // The line as it was printed.
    std::string raw() const;
};

constexpr size_t default_log_bytes = 1 << 20;

class log
{
  public:
    // The text of a line has at most so many bytes. A longer one is broken: it goes on in the next line.
    static constexpr size_t longest_line = 8192;

    // Keeps lines that take at most `byte_limit` bytes of memory, and the latest line always. The oldest are dropped.
    explicit log(size_t byte_limit = default_log_bytes) : byte_limit_(byte_limit) {}

    // Appends one printed text. A text without a line end is continued by the next one; empty lines are kept. The time
    // of a line is never before that of the line above it.
    // Any thread; never blocks on a follower's work beyond its own call.
    void append(uint64_t tick, std::string_view text);

    // A copy of all lines kept, oldest first.
    std::vector<log_line> lines() const;

    // The lines from number `first` on (0 is the first line ever), at most `limit`; `next` receives the number to
    // ask for next time. Lines that are not kept any more are skipped; `dropped` receives how many.
    std::vector<log_line> lines_from(uint64_t first, size_t limit, uint64_t* next, uint64_t* dropped = nullptr) const;

    // The raw texts of all lines kept, as one text: what a test compares.
    std::string raw() const;

    // Calls `seen` for each finished line from now on, in the printing context: it must not sleep and must not
    // print. Returns the handle for unfollow.
    int follow(std::function<void(const log_line&)> seen);
    void unfollow(int handle);

    void clear();

  private:
    // Under the lock.
    void add_piece(std::string_view piece, bool has_end);
    void begin_line(int8_t priority, bool has_mark);
    void extend_line(std::string_view piece);
    void finish_line(bool has_end);

    mutable std::mutex mutex_; // guards the rest
    const size_t byte_limit_;
    size_t bytes_ = 0; // that the lines take
    uint64_t last_tick_ = 0;
    uint64_t first_number_ = 0;
    std::deque<log_line> lines_;
    bool last_is_open_ = false;
    int next_follower_ = 1;
    std::map<int, std::function<void(const log_line&)>> followers_;
};

// The way a log reader shows a line: "[    1.234567]" style seconds, then the text.
std::string format_line(const log_line& line);

// The text that stands for dropped lines: "5 lines were dropped".
std::string format_dropped(uint64_t lines);

} // namespace kernel

// A machine's kernel log: keeps the printed lines with their times, and shows new ones to followers.
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

constexpr int log_default_priority = 4; // for a text without a priority: a warning

struct log_line {
    uint64_t tick = 0;
    std::string text;                       // without priority mark "<n>" and line end
    int8_t priority = log_default_priority; // 0 (emergency) to 7 (debug)
    bool has_mark = false;                  // it was printed with "<n>"
    bool has_end = false;                   // it was printed with a line end

    // The line in its printed form.
    std::string raw() const;
};

constexpr size_t default_log_bytes = 1 << 20;

// Any thread, any context.
class log
{
  public:
    // The largest number of bytes in the text of a line. A longer text continues in the next line.
    static constexpr size_t longest_line = 8192;

    // Keeps the latest lines, up to `byte_limit` bytes of memory, and drops the oldest ones. Always keeps the last
    // line.
    explicit log(size_t byte_limit = default_log_bytes) : byte_limit_(byte_limit) {}

    // Appends one printed text. If it has no line end, the next text continues its line. Empty lines are kept. A line
    // is never earlier than the line before it. Calls the followers.
    void append(uint64_t tick, std::string_view text);

    // A copy of all lines, oldest first.
    std::vector<log_line> lines() const;

    // Returns at most `limit` finished lines, beginning with number `first`. The first line ever printed has number 0.
    // `next` becomes the number after the last returned line. Dropped lines are skipped; `drop_count` (unless null)
    // becomes their number.
    std::vector<log_line> lines_from(uint64_t first, size_t limit, uint64_t* next,
                                     uint64_t* drop_count = nullptr) const;

    // All lines in their printed form, as one text.
    std::string raw() const;

    // Calls `follower` for each line that is finished from now on. The call runs in the printing context, with the log
    // locked: it must not sleep, print or use the log. Returns a handle for unfollow(). After unfollow(), `follower` is
    // not called any more.
    int follow(std::function<void(const log_line&)> follower);
    void unfollow(int handle);

    // Drops all lines.
    void clear();

  private:
    // The callers hold mutex_.
    void add_piece(std::string_view piece, bool has_end);
    void begin_line(int8_t priority, bool has_mark);
    void extend_line(std::string_view piece);
    void finish_line(bool has_end);

    mutable std::mutex mutex_; // guards the following members
    const size_t byte_limit_;
    size_t bytes_ = 0; // memory that the lines use
    uint64_t last_tick_ = 0;
    uint64_t first_number_ = 0;
    std::deque<log_line> lines_;
    bool last_is_open_ = false;
    int next_follower_ = 1;
    std::map<int, std::function<void(const log_line&)>> followers_;
};

// Formats a line like a log reader: "[    1.234] text", with the time in seconds.
std::string format_line(const log_line& line);

// The text that replaces dropped lines: "5 lines were dropped".
std::string format_dropped(uint64_t lines);

} // namespace kernel

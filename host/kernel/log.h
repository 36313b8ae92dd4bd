// A machine's kernel log. Keeps the printed lines with their times, and passes each new line to the log's followers.
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

constexpr int log_default_priority = 4; // a warning; the priority of a text that was printed without a priority

struct log_line {
    uint64_t tick = 0;                      // time of printing, in ticks of 1 ms
    std::string text;                       // without the priority mark "<n>" and the line end
    int8_t priority = log_default_priority; // 0 (emergency) to 7 (debug)
    bool has_mark = false;                  // true if it was printed with a priority mark
    bool has_end = false;                   // true if it was printed with a line end

    // Returns the line as it was printed, with its mark and line end.
    std::string raw() const;
};

constexpr size_t default_log_bytes = 1 << 20;

// Any thread, any context.
class log
{
  public:
    // The largest number of bytes in the text of a line. A longer text continues in the next line.
    static constexpr size_t longest_line = 8192;

    // Keeps the newest lines, up to `byte_limit` bytes of memory, and drops older ones. Always keeps the last line.
    explicit log(size_t byte_limit = default_log_bytes) : byte_limit_(byte_limit) {}

    // Appends one printed text at the time `tick`. If the text has no line end, the next text continues its line. Keeps
    // empty lines. If an earlier text has a later time, the new line gets that time. Calls the followers for each
    // finished line.
    void append(uint64_t tick, std::string_view text);

    // Returns a copy of the kept lines, oldest first.
    std::vector<log_line> lines() const;

    // Returns at most `limit` finished lines, beginning with line number `first`. The first line ever printed has
    // number 0. Skips dropped lines. Stores in `*drop_count` (unless null) how many dropped lines it has skipped.
    // Stores in `*next` the value of `first` for the next call.
    std::vector<log_line> lines_from(uint64_t first, size_t limit, uint64_t* next,
                                     uint64_t* drop_count = nullptr) const;

    // Returns the kept lines, as they were printed, in one text.
    std::string raw() const;

    // Calls `follower` for each line that is finished from now on. The task that prints makes the call, with the log
    // locked. Therefore `follower` must not sleep, print or use the log. Returns a handle for unfollow(). When
    // unfollow() has returned, `follower` is not called any more.
    int follow(std::function<void(const log_line&)> follower);
    void unfollow(int handle);

    // Drops all lines.
    void clear();

  private:
    // The callers of these functions hold mutex_.
    void add_piece(std::string_view piece, bool has_end);
    void begin_line(int8_t priority, bool has_mark);
    void extend_line(std::string_view piece);
    void finish_line(bool has_end);

    mutable std::mutex mutex_; // guards the following members
    const size_t byte_limit_;
    size_t bytes_ = 0;          // memory that the lines use
    uint64_t last_tick_ = 0;    // latest time of a text
    uint64_t first_number_ = 0; // number of the first line in lines_
    std::deque<log_line> lines_;
    bool has_open_line_ = false; // true if the last line is not finished
    int next_follower_ = 1;
    std::map<int, std::function<void(const log_line&)>> followers_;
};

// Formats a line like a log reader: "[    1.234] text", with the time in seconds.
std::string format_line(const log_line& line);

// Returns the text to print in place of dropped lines: "5 lines were dropped".
std::string format_dropped(uint64_t lines);

} // namespace kernel

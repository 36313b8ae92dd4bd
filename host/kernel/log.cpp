#include "host/kernel/log.h"

#include <algorithm>
#include <cstdio>

namespace kernel
{

namespace
{

constexpr size_t mark_size = 3; // of "<n>"

bool has_mark(std::string_view text)
{
    return text.size() >= mark_size && text[0] == '<' && text[1] >= '0' && text[1] <= '7' && text[2] == '>';
}

size_t memory_of(const log_line& line)
{
    constexpr size_t allocation_overhead = 16;
    static const size_t inside = std::string().capacity(); // so many characters need no memory of their own
    const size_t room = line.text.capacity();
    return sizeof line + (room > inside ? room + 1 + allocation_overhead : 0);
}

} // namespace

std::string log_line::raw() const
{
    const std::string mark = has_mark ? "<" + std::to_string(priority) + ">" : "";
    return mark + text + (has_end ? "\n" : "");
}

void log::append(uint64_t tick, std::string_view text)
{
    const std::lock_guard lock(mutex_);
    last_tick_ = std::max(last_tick_, tick); // callers read the clock before they have the lock
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const bool has_end = end != std::string_view::npos;
        add_piece(text.substr(0, end), has_end);
        text.remove_prefix(has_end ? end + 1 : text.size());
    }
}

void log::add_piece(std::string_view piece, bool has_end)
{
    if (!last_is_open_) {
        const bool marked = has_mark(piece);
        begin_line(marked ? static_cast<int8_t>(piece[1] - '0') : log_default_priority, marked);
        if (marked) piece.remove_prefix(mark_size);
    }
    for (;;) {
        const std::string_view fitting = piece.substr(0, longest_line - lines_.back().text.size());
        extend_line(fitting);
        piece.remove_prefix(fitting.size());
        if (piece.empty()) break;
        finish_line(false);
        begin_line(lines_.back().priority, false);
    }
    if (has_end) finish_line(true);
}

void log::begin_line(int8_t priority, bool has_mark)
{
    log_line& line = lines_.emplace_back();
    line.tick = last_tick_;
    line.priority = priority;
    line.has_mark = has_mark;
    bytes_ += memory_of(line);
    last_is_open_ = true;
}

void log::extend_line(std::string_view piece)
{
    log_line& line = lines_.back();
    bytes_ -= memory_of(line);
    line.text += piece;
    bytes_ += memory_of(line);
    for (; bytes_ > byte_limit_ && lines_.size() > 1; ++first_number_) {
        bytes_ -= memory_of(lines_.front());
        lines_.pop_front();
    }
}

void log::finish_line(bool has_end)
{
    log_line& line = lines_.back();
    line.has_end = has_end;
    last_is_open_ = false;
    for (const auto& [handle, seen] : followers_) seen(line);
}

std::vector<log_line> log::lines() const
{
    const std::lock_guard lock(mutex_);
    return {lines_.begin(), lines_.end()};
}

std::vector<log_line> log::lines_from(uint64_t first, size_t limit, uint64_t* next, uint64_t* dropped) const
{
    const std::lock_guard lock(mutex_);
    const uint64_t skipped = first_number_ - std::min(first, first_number_);
    if (dropped) *dropped = skipped;
    first += skipped;
    const uint64_t finished = first_number_ + lines_.size() - (last_is_open_ ? 1 : 0);
    std::vector<log_line> found;
    for (; first < finished && found.size() < limit; ++first) found.push_back(lines_[first - first_number_]);
    *next = first;
    return found;
}

std::string log::raw() const
{
    const std::lock_guard lock(mutex_);
    std::string whole;
    for (const log_line& line : lines_) whole += line.raw();
    return whole;
}

int log::follow(std::function<void(const log_line&)> seen)
{
    const std::lock_guard lock(mutex_);
    followers_[next_follower_] = std::move(seen);
    return next_follower_++;
}

void log::unfollow(int handle)
{
    const std::lock_guard lock(mutex_);
    followers_.erase(handle);
}

void log::clear()
{
    const std::lock_guard lock(mutex_);
    first_number_ += lines_.size();
    lines_.clear();
    bytes_ = 0;
    last_is_open_ = false;
}

std::string format_line(const log_line& line)
{
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%5llu.%03llu] ", static_cast<unsigned long long>(line.tick / 1000),
                  static_cast<unsigned long long>(line.tick % 1000));
    return stamp + line.text;
}

std::string format_dropped(uint64_t lines)
{
    return std::to_string(lines) + (lines == 1 ? " line was dropped" : " lines were dropped");
}

} // namespace kernel

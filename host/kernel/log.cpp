#include "host/kernel/log.h"

#include <algorithm>
#include <cstdio>

namespace kernel
{

namespace
{

constexpr size_t mark_size = 3; // length of "<n>"

bool has_mark(std::string_view text)
{
    return text.size() >= mark_size && text[0] == '<' && text[1] >= '0' && text[1] <= '7' && text[2] == '>';
}

size_t memory_of(const log_line& line)
{
    constexpr size_t allocation_overhead = 16;
    static const size_t inline_capacity = std::string().capacity(); // a short text is stored in the line itself
    const size_t capacity = line.text.capacity();
    return sizeof line + (capacity > inline_capacity ? capacity + 1 + allocation_overhead : 0);
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
    last_tick_ = std::max(last_tick_, tick); // a caller may read the clock before another caller, but append later
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const bool has_end = end != std::string_view::npos;
        add_piece(text.substr(0, end), has_end);
        text.remove_prefix(has_end ? end + 1 : text.size());
    }
}

void log::add_piece(std::string_view piece, bool has_end)
{
    if (!has_open_line_) {
        const bool is_marked = has_mark(piece);
        begin_line(is_marked ? static_cast<int8_t>(piece[1] - '0') : log_default_priority, is_marked);
        if (is_marked) piece.remove_prefix(mark_size);
    }
    for (;;) {
        const std::string_view part = piece.substr(0, longest_line - lines_.back().text.size());
        extend_line(part);
        piece.remove_prefix(part.size());
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
    has_open_line_ = true;
}

void log::extend_line(std::string_view piece)
{
    log_line& line = lines_.back();
    bytes_ -= memory_of(line);
    line.text += piece;
    bytes_ += memory_of(line);
    while (bytes_ > byte_limit_ && lines_.size() > 1) {
        bytes_ -= memory_of(lines_.front());
        lines_.pop_front();
        ++first_number_;
    }
}

void log::finish_line(bool has_end)
{
    log_line& line = lines_.back();
    line.has_end = has_end;
    has_open_line_ = false;
    for (const auto& [handle, follower] : followers_) follower(line);
}

std::vector<log_line> log::lines() const
{
    const std::lock_guard lock(mutex_);
    return {lines_.begin(), lines_.end()};
}

std::vector<log_line> log::lines_from(uint64_t first, size_t limit, uint64_t* next, uint64_t* drop_count) const
{
    const std::lock_guard lock(mutex_);
    if (drop_count) *drop_count = first_number_ - std::min(first, first_number_);
    const uint64_t end = first_number_ + lines_.size() - (has_open_line_ ? 1 : 0);
    std::vector<log_line> lines;
    *next = std::max(first, first_number_);
    for (; *next < end && lines.size() < limit; ++*next) lines.push_back(lines_[*next - first_number_]);
    return lines;
}

std::string log::raw() const
{
    const std::lock_guard lock(mutex_);
    std::string whole;
    for (const log_line& line : lines_) whole += line.raw();
    return whole;
}

int log::follow(std::function<void(const log_line&)> follower)
{
    const std::lock_guard lock(mutex_);
    followers_[next_follower_] = std::move(follower);
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
    has_open_line_ = false;
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

#include "host/kernel/log.h"

#include <cstdio>

namespace kernel
{

namespace
{

// Takes "<n>" off the front of a text and returns n, or the default priority.
int take_priority(std::string_view* text)
{
    const bool marked =
        text->size() >= 3 && (*text)[0] == '<' && (*text)[1] >= '0' && (*text)[1] <= '7' && (*text)[2] == '>';
    if (!marked) return log_default_priority;
    const int priority = (*text)[1] - '0';
    text->remove_prefix(3);
    return priority;
}

} // namespace

void log::append(uint64_t tick, std::string_view text)
{
    const std::lock_guard lock(mutex_);
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view piece = text.substr(0, end == std::string_view::npos ? text.size() : end + 1);
        text.remove_prefix(piece.size());
        if (!last_is_open_) {
            if (lines_.size() == capacity_) {
                lines_.pop_front();
                ++first_number_;
            }
            lines_.emplace_back().tick = tick;
        }
        log_line& line = lines_.back();
        line.raw += piece;
        if (!last_is_open_) line.priority = take_priority(&piece);
        last_is_open_ = end == std::string_view::npos;
        line.text += last_is_open_ ? piece : piece.substr(0, piece.size() - 1);
        if (last_is_open_) return;
        for (const auto& [handle, seen] : followers_) seen(line);
    }
}

std::vector<log_line> log::lines() const
{
    const std::lock_guard lock(mutex_);
    return {lines_.begin(), lines_.end()};
}

std::vector<log_line> log::lines_from(uint64_t first, size_t limit, uint64_t* next) const
{
    const std::lock_guard lock(mutex_);
    if (first < first_number_) first = first_number_;
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
    for (const log_line& line : lines_) whole += line.raw;
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
    last_is_open_ = false;
}

std::string format_line(const log_line& line)
{
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%5llu.%03llu] ", static_cast<unsigned long long>(line.tick / 1000),
                  static_cast<unsigned long long>(line.tick % 1000));
    return stamp + line.text;
}

} // namespace kernel

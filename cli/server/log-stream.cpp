#include "cli/server/log-stream.h"

#include "console/log-filter.h"

namespace cli
{

log_stream::log_stream(kernel::log& log, int level, std::function<void()> on_new_line) : log_(log), level_(level)
{
    if (on_new_line)
        follower_ = log_.follow([on_new_line = std::move(on_new_line)](const kernel::log_line&) { on_new_line(); });
}

log_stream::~log_stream()
{
    if (follower_) log_.unfollow(*follower_);
}

bool log_stream::pump(const std::function<bool()>& may_send, const std::function<void(const nlohmann::json&)>& send)
{
    constexpr size_t lines_at_once = 256;
    while (may_send()) {
        uint64_t dropped = 0;
        const std::vector<kernel::log_line> lines = log_.lines_from(next_, lines_at_once, &next_, &dropped);
        if (dropped > 0) send({{"dropped", dropped}});
        for (const kernel::log_line& line : lines)
            if (console::trace_level_of(line.text) <= level_)
                send({{"tick", line.tick}, {"line", kernel::format_line(line)}});
        if (lines.empty()) return follower_.has_value();
    }
    return true;
}

} // namespace cli

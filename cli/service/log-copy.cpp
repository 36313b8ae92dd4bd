#include "cli/service/log-copy.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "console/log-filter.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

using console::priority;

constexpr const char* part = "log"; // the value of ATS_PART; docs/operations.md lists these values

// The maximum number of lines that wait for the journal. Further lines are not copied: so many lines usually wait only
// when the journal accepts none.
constexpr size_t most_waiting_lines = console::line_limit::most_lines;

// The priorities of trace lines, by level.
constexpr std::array trace_priorities = {priority::error,       priority::error, priority::warning,
                                         priority::information, priority::debug, priority::debug};
static_assert(trace_priorities.size() == console::trace_level_everything + 1);

// Returns the module's name in a trace line, in lower case: "ats" for "ERROR   : ATS : ...".
std::string module_of(const std::string& trace_line)
{
    constexpr std::string_view separator = " : ";
    const size_t start = trace_line.find(separator) + separator.size();
    std::string name = trace_line.substr(start, trace_line.find(separator, start) - start);
    std::ranges::transform(name, name.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return name;
}

// A trace line gets the priority of its level. Any other line keeps the priority with which the host printed it.
// Without such a priority, the line becomes a notice.
console::notice notice_of(const std::string& host, const kernel::log_line& line)
{
    console::notice notice{.text = line.text, .part = part, .host = host};
    const int level = console::trace_level_of(line.text);
    if (level > ZR_PANIC) {
        notice.priority = trace_priorities.at(static_cast<size_t>(level));
        notice.module = module_of(line.text);
        notice.trace_level = level;
    } else if (line.has_mark) {
        notice.priority = static_cast<priority>(line.priority);
    }
    return notice;
}

} // namespace

log_copy::log_copy(send_t send) : send_(std::move(send)), thread_(exec::new_thread([this] { work(); })) {}

log_copy::~log_copy()
{
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
        change_.notify_all();
    }
    thread_.join();
}

void log_copy::follow(const std::string& host, kernel::log& log)
{
    log.follow([this, host](const kernel::log_line& line) { add(host, line); });
}

void log_copy::add(const std::string& host, const kernel::log_line& line)
{
    const std::lock_guard lock(mutex_);
    if (waiting_lines_.size() >= most_waiting_lines) return limit_.leave_out();
    const std::optional<std::vector<console::notice>> earlier = limit_.admit(line.tick, part);
    if (!earlier) return;
    waiting_lines_.insert(waiting_lines_.end(), earlier->begin(), earlier->end());
    waiting_lines_.push_back(notice_of(host, line));
    change_.notify_all();
}

void log_copy::work()
{
    std::unique_lock lock(mutex_);
    while (true) {
        change_.wait(lock, [&] { return is_stopping_ || !waiting_lines_.empty(); });
        if (waiting_lines_.empty()) return;
        const console::notice notice = std::move(waiting_lines_.front());
        waiting_lines_.pop_front();
        lock.unlock();
        send_(notice);
        lock.lock();
    }
}

} // namespace cli

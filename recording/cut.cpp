#include "recording/cut.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "recording/event-fields.h"
#include "recording/recorder.h"

namespace recording
{

namespace
{

struct event_line {
    std::string text;
    std::string fault; // in its fields, or ""
    uint64_t tick = 0;
    bool is_detail = false; // a datagram, a handled event, a log line or a table
};

bool is_detail(const std::string& kind)
{
    static const std::set<std::string> kinds = {"sent", "arrived", "lost", "refused", "handled", "log", "table"};
    return kinds.contains(kind);
}

tl::unexpected<ats::error> wrong_line(size_t number, const std::string& reason)
{
    return ats::fail(ats::error_kind::invalid, "line " + std::to_string(number) + ": " + reason);
}

// Reads the event in a line of a recording. Returns false if the line has no tick ("t") or no kind ("e").
bool read_event(const std::string& text, event_line& event)
{
    const json fields = json::parse(text, nullptr, false);
    if (!fields.is_object() || !fields.contains("t") || !fields.contains("e")) return false;
    if (!fields["t"].is_number_unsigned() || !fields["e"].is_string()) return false;
    event = {text, fault_in_fields(fields), fields["t"].get<uint64_t>(), is_detail(fields["e"].get<std::string>())};
    return true;
}

bool is_header(const std::string& text)
{
    const json header = json::parse(text, nullptr, false);
    return header.is_object() && header.value("format", json()) == "ats-recording" &&
           header.value("version", json()) == format_version;
}

// Returns the largest window whose details have at most byte_limit bytes. The window is at the beginning of the
// recording, or at the end with keeps_end.
window fitting_window(const std::vector<event_line>& events, const cut_options& options)
{
    constexpr window empty_window{1, 0};
    window window{events.front().tick, events.back().tick};
    size_t bytes = 0;
    const auto exceeds = [&](const event_line& event) {
        bytes += event.is_detail ? event.text.size() : 0;
        return bytes > options.byte_limit;
    };
    if (options.keeps_end) {
        const auto first_left_out = std::find_if(events.rbegin(), events.rend(), exceeds);
        if (first_left_out != events.rend()) window.from_tick = first_left_out->tick + 1;
    } else {
        const auto first_left_out = std::ranges::find_if(events, exceeds);
        if (first_left_out == events.end()) return window;
        if (first_left_out->tick == 0) return empty_window;
        window.to_tick = first_left_out->tick - 1;
    }
    return window;
}

} // namespace

ats::result<cut_recording> cut(const std::string& lines, const cut_options& options)
{
    std::vector<event_line> events;
    cut_recording result;
    size_t number = 0;
    for (size_t begin = 0; begin < lines.size();) {
        const size_t end = std::min(lines.find('\n', begin), lines.size());
        const std::string text = lines.substr(begin, end - begin);
        const bool is_last = end + 1 >= lines.size();
        begin = end + 1;
        event_line event;
        if (++number == 1) {
            if (!is_header(text))
                return wrong_line(1, "it is not a recording of version " + std::to_string(format_version));
            result.lines = text + "\n";
        } else if (read_event(text, event)) {
            if (!event.fault.empty()) return wrong_line(number, event.fault);
            events.push_back(std::move(event));
        } else if (!is_last) { // the last line may be cut off, because the run was killed
            return wrong_line(number, "it is not an event of a recording");
        }
    }
    if (number == 0) return ats::fail(ats::error_kind::invalid, "the recording is empty");
    if (events.empty()) return result;
    window window = options.selection.value_or(fitting_window(events, options));
    window.to_tick = std::min(window.to_tick, events.back().tick);
    for (const event_line& event : events) {
        const bool is_inside = event.tick >= window.from_tick && event.tick <= window.to_tick;
        if (!is_inside && event.is_detail) {
            result.shown_window = window;
            continue;
        }
        result.lines += event.text + "\n";
    }
    return result;
}

} // namespace recording

// Cuts a long recording to a window of time. The page of the recording then stays small enough for a browser.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/result.h"

namespace recording
{

// Both ends belong to the window. If from_tick is greater than to_tick, the window is empty.
struct window {
    uint64_t from_tick;
    uint64_t to_tick;
};

struct cut_options {
    std::optional<window> selection = {}; // the window to show; without it, the largest window within byte_limit
    bool keeps_end = false;      // true: this largest window is at the end of the recording; false: at its beginning
    size_t byte_limit = 4 << 20; // the most bytes of removable lines (see cut()) in this largest window
};

struct cut_recording {
    std::string lines;
    std::optional<window> shown_window; // empty if nothing was removed
};

// Removes datagrams, handled events, log lines and tables (see docs/recording.md) outside of the window. All other
// events stay, because the states at the beginning of the window result from them. Ignores a last line that is not
// an event, because the run may have been killed while it wrote the line. Fails (invalid) if the text is empty, if it
// is not a recording of this version, or if an event lacks a field that the page needs; the error then names the line.
ats::result<cut_recording> cut(const std::string& lines, const cut_options& options);

} // namespace recording

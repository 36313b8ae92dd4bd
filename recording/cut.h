// Cuts a long recording to a window, so that its page stays small enough to open.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/result.h"

namespace recording
{

struct window {
    uint64_t from_tick;
    uint64_t to_tick;
};

struct cut_options {
    std::optional<window> wanted = {}; // only this; otherwise as much as fits
    bool keeps_end = false;            // if it does not all fit, the end is kept; otherwise the beginning
    size_t byte_limit = 4 << 20;       // of datagrams and log lines
};

struct cut_recording {
    std::string lines;
    std::optional<window> shown; // empty if nothing was left out
};

// Leaves out datagrams, log lines and tables outside of the window. Other events are kept: they make the states in it.
// Fails (invalid) on a text that is not a recording of this version; the error names the line.
ats::result<cut_recording> cut(const std::string& lines, const cut_options& options);

} // namespace recording

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
    std::optional<window> selection = {}; // the part to show; if empty, as much as fits
    bool keeps_end = false;               // if not everything fits, keeps the end instead of the beginning
    size_t byte_limit = 4 << 20;          // for datagrams and log lines
};

struct cut_recording {
    std::string lines;
    std::optional<window> shown_window; // empty if everything is shown
};

// Removes datagrams, log lines and tables outside of the window. All other events stay, because the states at the
// beginning of the window result from them. Fails (invalid) if the text is not a recording of this version; the error
// names the line.
ats::result<cut_recording> cut(const std::string& lines, const cut_options& options);

} // namespace recording

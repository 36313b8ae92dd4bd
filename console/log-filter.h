// Finds the trace level of a log line.
#pragma once

#include <string_view>

#include "logger.h"

namespace console
{

constexpr int trace_level_everything = ZR_FUNC;

// Returns the level of a trace line ("ERROR   : ATS : ..."). A plain line has no level; it counts as ZR_PANIC, so no
// filter hides it.
inline int trace_level_of(std::string_view line)
{
    for (int level = ZR_PANIC; level <= ZR_FUNC; ++level) {
        const std::string_view name = zrlog_levels[level];
        if (line.starts_with(name) && line.substr(name.size()).starts_with(" : ")) return level;
    }
    return ZR_PANIC;
}

} // namespace console

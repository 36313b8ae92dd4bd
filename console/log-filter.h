// Finds the trace level of a log line. `ats log` selects lines by their level, the journal gets a priority from it, and
// metrics count the lines of each level.
#pragma once

#include <string_view>

#include "logger.h"

namespace console
{

constexpr int trace_level_everything = ZR_FUNC;

// Returns the level of a trace line ("ERROR   : ATS : ..."). Returns ZR_PANIC, the most severe level, for a line that
// does not begin with a level. A filter never hides such a line.
inline int trace_level_of(std::string_view line)
{
    for (int level = ZR_PANIC; level <= ZR_FUNC; ++level) {
        const std::string_view name = zrlog_levels[level];
        if (line.starts_with(name) && line.substr(name.size()).starts_with(" : ")) return level;
    }
    return ZR_PANIC;
}

} // namespace console

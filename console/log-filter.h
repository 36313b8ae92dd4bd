// Which trace level a log line has.
#pragma once

#include <array>
#include <string_view>

namespace console
{

constexpr int trace_level_everything = 5;

// The level that a trace line names ("ERROR   : ATS : ..."); 0 for a plain line, which no filter hides.
inline int trace_level_of(std::string_view line)
{
    constexpr std::array<std::string_view, 6> names = {"PANIC  ", "ERROR  ", "WARNING",
                                                       "INFO   ", "DEBUG  ", "FUNC   "};
    for (size_t level = 0; level < names.size(); ++level)
        if (line.starts_with(names[level]) && line.substr(names[level].size()).starts_with(" : "))
            return static_cast<int>(level);
    return 0;
}

} // namespace console

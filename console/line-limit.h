// Limits the number of lines: at most 1000 in ten seconds. The default of systemd's journal is 10000 lines of a service
// in thirty seconds; it drops later lines of any priority. docs/operations.md states the limit.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "console/journal.h"

namespace console
{

// One thread at a time.
class line_limit
{
  public:
    static constexpr uint64_t most_lines = 1000;
    static constexpr uint64_t period_ms = 10'000;

    // The line about omitted lines ends with `advice`.
    explicit line_limit(std::string advice) : advice_(std::move(advice)) {}

    // Asks to print a line of this part of the service at `now_ms`, which must not decrease. If the result is none,
    // omit the line. Otherwise print the returned lines first: there is one if lines were omitted before.
    std::optional<std::vector<notice>> admit(uint64_t now_ms, const std::string& part)
    {
        if (!start_ms_ || now_ms >= *start_ms_ + period_ms) {
            start_ms_ = now_ms;
            lines_ = 0;
        }
        if (lines_ == most_lines) {
            leave_out();
            return std::nullopt;
        }
        ++lines_;
        if (omitted_lines_ == 0) return std::vector<notice>();
        return std::vector{
            notice{.priority = priority::warning, .text = remark(std::exchange(omitted_lines_, 0)), .part = part}};
    }

    // Counts a line that was omitted for another reason.
    void leave_out() { ++omitted_lines_; }

  private:
    std::string remark(uint64_t lines) const
    {
        return std::to_string(lines) + (lines == 1 ? " line was" : " lines were") + " left out here, beyond " +
               std::to_string(most_lines) + " in " + std::to_string(period_ms / 1000) + " seconds" + advice_;
    }

    const std::string advice_;
    std::optional<uint64_t> start_ms_; // start of the period
    uint64_t lines_ = 0;               // in the period
    uint64_t omitted_lines_ = 0;       // omitted lines that were not reported yet
};

} // namespace console

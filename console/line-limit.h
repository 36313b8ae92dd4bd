// Limits the number of printed lines to 1000 in each period of ten seconds. systemd's journal has its own limit, by
// default 10000 lines of a service in thirty seconds. Beyond its own limit, the journal drops even important lines. The
// lower limit here prevents this loss. docs/operations.md tells users about both limits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "console/journal.h"

namespace console
{

// Only one thread at a time may use an object.
class line_limit
{
  public:
    static constexpr uint64_t most_lines = 1000;
    static constexpr uint64_t period_ms = 10'000;

    // `advice` is the end of the warning about omitted lines.
    explicit line_limit(std::string advice) : advice_(std::move(advice)) {}

    // Decides whether the caller may print a line at the time `now_ms`, which must not decrease from call to call. If
    // the result is std::nullopt, the caller must omit the line. Otherwise the caller first prints the lines in the
    // result, then its own line. The result has no line, or one warning with the number of lines that were omitted
    // before. The warning belongs to `part` of the service (ATS_PART).
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

    // Counts a line that the caller has omitted for another reason.
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

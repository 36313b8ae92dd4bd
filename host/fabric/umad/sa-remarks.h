// Lines for the administrator about answers of the SA. There are three reasons for a line: the SA is busy, the SA
// refuses a record of this host, or several records have the same address. Each line is reported only once.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "sa-mads.h"

namespace umad
{

// Only one thread at a time may use an object.
class sa_remarks
{
  public:
    // Returns a line about the answer. Returns "" if there is nothing to report, if the line was returned before, or if
    // many lines were returned before.
    std::string remark_on(const sa_mad_v2_t& answer);

  private:
    std::set<std::pair<uint16_t, uint32_t>> reported_; // status and IPv4 address
};

} // namespace umad

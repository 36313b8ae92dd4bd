// Lines for the administrator about answers of the SA. The SA is busy, it refuses a record of this host, or several
// records have the same address. Each line is reported once.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "sa-mads.h"

namespace umad
{

// For one thread at a time.
class sa_remarks
{
  public:
    // Returns a line about the answer, or "" if there is nothing to report or it has been reported before.
    std::string remark_on(const sa_mad_v2_t& answer);

  private:
    std::set<std::pair<uint16_t, uint32_t>> reported_; // status and IPv4 address
};

} // namespace umad

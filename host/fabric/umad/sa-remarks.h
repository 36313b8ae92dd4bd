// What the SA's answers tell an administrator: that it is busy, that it refuses a record of this host, that two hosts
// hold one address. Each is said once.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "sa-mads.h"

namespace umad
{

class sa_remarks
{
  public:
    // A line about the answer, or "" if it is a good one or all has been said.
    std::string on(const sa_mad_v2_t& answer);

  private:
    std::set<std::pair<uint16_t, uint32_t>> said_; // status and IPv4 address
};

} // namespace umad

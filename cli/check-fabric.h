// The checks of `ats check` about the fabric of a configuration: the HCAs and ports of this machine, and the SA.
#pragma once

#include "cli/check-findings.h"
#include "cli/service/world-config.h"

namespace cli
{

// Checks the HCAs that the configuration uses. For a real fabric, also checks libibumad, the ports of these HCAs, and
// the SA through each of them. A note reports each host that has several HCAs.
void check_fabric(findings& findings, const world_config& config);

} // namespace cli

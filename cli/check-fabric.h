// The checks of `ats check` about the fabric of a configuration: the HCAs and ports of this machine, and the SA.
#pragma once

#include "cli/check-findings.h"
#include "cli/service/world-config.h"

namespace cli
{

// For a real fabric, checks libibumad, the HCAs that the configuration uses, their ports, and the SA through each HCA.
void check_fabric(findings& findings, const world_config& config);

} // namespace cli

// The result file of a campaign, or of one shard of it: one JSON object. Shards may run on different machines. The
// files of all shards together give the same result as a run on one machine.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"
#include "host/result.h"

namespace campaign
{

// Writes the file. Returns an error if it cannot be written; an existing file then does not change.
ats::result<> save(const campaign_result& result, const std::string& path);

// Reads the files of all shards of one campaign, in any order, and adds them up. The failures in the sum are sorted by
// seed. Returns an error if a file cannot be read or belongs to another campaign, or if a shard is missing, occurs
// twice or was interrupted.
ats::result<campaign_result> merge(const std::vector<std::string>& paths);

} // namespace campaign

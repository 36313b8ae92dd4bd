// The result file of a campaign's shard: one JSON object. Shards run on different machines. The files of all shards
// together give the same result as one machine.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"
#include "host/result.h"

namespace campaign
{

// Writes the file. On failure, an existing file does not change.
ats::result<> save(const campaign_result& result, const std::string& path);

// Reads the files of all shards of one campaign, in any order, and adds them up. The failures are sorted by seed. Fails
// if a file cannot be read or belongs to another campaign. Also fails if a shard is missing, occurs twice or was
// interrupted.
ats::result<campaign_result> merge(const std::vector<std::string>& paths);

} // namespace campaign

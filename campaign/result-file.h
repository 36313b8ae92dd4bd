// The file in which a shard of a campaign leaves its result, as one JSON object. Shards run on different machines; the
// files of all shards together give the result that one machine would have found.
#pragma once

#include <string>
#include <vector>

#include "campaign/figures.h"
#include "host/result.h"

namespace campaign
{

// Writes the file, or leaves an existing one as it is. The error says what failed.
ats::result<> save(const campaign_result& result, const std::string& path);

// Reads the files of all shards of one campaign, in any order, and adds them up. The failures are sorted by seed. The
// error: a file cannot be read, a shard is missing, there twice or interrupted, or a file is of another campaign.
ats::result<campaign_result> merge(const std::vector<std::string>& paths);

} // namespace campaign

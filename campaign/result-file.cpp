#include "campaign/result-file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <unistd.h>

namespace campaign
{

namespace
{

using nlohmann::json;

// The version of the file's format. Increment it with every change of the format.
constexpr int format = 2;

json to_json(const campaign_result& result)
{
    json options = json::array(), counts, marks, failures = json::array();
    for (const plan_option& each : plan_option_table)
        if (result.options.*each.member) options.push_back(each.name);
    for (const summed_figure& each : summed_figures) counts[each.name] = result.counts.*each.member;
    for (size_t kind = 0; kind < act_kind_count; ++kind) marks[act_kinds[kind].name] = result.counts.marks[kind];
    for (const auto& each : result.failures) failures.push_back({{"seed", each.seed}, {"complaint", each.complaint}});
    return {{"format", format},
            {"options", options},
            {"modules", result.module_folder},
            {"first_seed", result.first_seed},
            {"last_seed", result.last_seed},
            {"shard", result.shard},
            {"shards", result.shards},
            {"interrupted", result.is_interrupted},
            {"seconds", result.seconds},
            {"figures", counts},
            {"marks", marks},
            {"digest", result.counts.digest},
            {"failures", failures}};
}

// Throws a json::exception if a member is missing or has another type.
campaign_result from_json(const json& file)
{
    campaign_result result;
    const json& options = file.at("options");
    for (const plan_option& each : plan_option_table)
        result.options.*each.member = std::ranges::find(options, each.name) != options.end();
    file.at("modules").get_to(result.module_folder);
    file.at("first_seed").get_to(result.first_seed);
    file.at("last_seed").get_to(result.last_seed);
    file.at("shard").get_to(result.shard);
    file.at("shards").get_to(result.shards);
    file.at("interrupted").get_to(result.is_interrupted);
    file.at("seconds").get_to(result.seconds);
    for (const summed_figure& each : summed_figures)
        file.at("figures").at(each.name).get_to(result.counts.*each.member);
    for (size_t kind = 0; kind < act_kind_count; ++kind)
        file.at("marks").at(act_kinds[kind].name).get_to(result.counts.marks[kind]);
    file.at("digest").get_to(result.counts.digest);
    for (const json& each : file.at("failures")) result.failures.push_back({each.at("seed"), each.at("complaint")});
    return result;
}

ats::result<campaign_result> load(const std::string& path)
{
    std::ifstream stream(path);
    if (!stream) return ats::fail("cannot read " + path + ": " + std::strerror(errno));
    try {
        const json file = json::parse(stream);
        if (const json& version = file.at("format"); version != format)
            return ats::fail(ats::error_kind::invalid, path + " has format " + version.dump() +
                                                           ", and this program reads format " + std::to_string(format) +
                                                           ": merge with the program that ran the shards");
        return from_json(file);
    } catch (const json::exception& exception) {
        return ats::fail(ats::error_kind::invalid,
                         path + " is not a result of a shard of this version (" + exception.what() + ")");
    }
}

// Describes a campaign by the part of the result that is equal for all its shards.
std::string campaign_of(const campaign_result& result)
{
    return "--seeds " + std::to_string(result.first_seed) + "-" + std::to_string(result.last_seed) +
           describe(result.options) + (result.module_folder.empty() ? "" : " --modules " + result.module_folder) +
           ", in " + std::to_string(result.shards) + " shards";
}

void add_shard(campaign_result& sum, campaign_result& shard)
{
    add(sum.counts, shard.counts);
    sum.seconds += shard.seconds;
    std::ranges::move(shard.failures, std::back_inserter(sum.failures));
}

} // namespace

ats::result<> save(const campaign_result& result, const std::string& path)
{
    const std::string draft = path + ".new";
    std::FILE* const file = std::fopen(draft.c_str(), "w");
    if (!file) return ats::fail("cannot write " + draft + ": " + std::strerror(errno));
    // A complaint may contain any bytes, because modules log any bytes.
    const std::string text = to_json(result).dump(1, ' ', false, json::error_handler_t::replace) + "\n";
    const bool is_written = std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0 &&
                            fsync(fileno(file)) == 0;
    const int error = errno;
    const bool is_closed = std::fclose(file) == 0;
    if (!is_written || !is_closed)
        return ats::fail("cannot write " + draft + ": " + std::strerror(is_written ? errno : error));
    if (std::rename(draft.c_str(), path.c_str()) != 0)
        return ats::fail("cannot rename " + draft + " to " + path + ": " + std::strerror(errno));
    return {};
}

ats::result<campaign_result> merge(const std::vector<std::string>& paths)
{
    campaign_result sum;
    std::set<uint64_t> numbers;
    for (const std::string& path : paths) {
        ats::result<campaign_result> shard = load(path);
        if (!shard) return ats::pass_on(shard);
        const std::string subject = "shard " + std::to_string(shard->shard) + " of " + std::to_string(shard->shards);
        if (shard->is_interrupted) return ats::fail(path + ": " + subject + " was interrupted: run it again");
        if (&path == &paths.front()) {
            sum.options = shard->options;
            sum.module_folder = shard->module_folder;
            sum.first_seed = shard->first_seed;
            sum.last_seed = shard->last_seed;
            sum.shards = shard->shards;
        }
        if (campaign_of(*shard) != campaign_of(sum))
            return ats::fail(ats::error_kind::invalid, path + " is of " + campaign_of(*shard) + ", but " +
                                                           paths.front() + " of " + campaign_of(sum));
        if (!numbers.insert(shard->shard).second)
            return ats::fail(ats::error_kind::invalid, path + ": " + subject + " is there twice");
        add_shard(sum, *shard);
    }
    uint64_t first_missing = 1;
    while (numbers.contains(first_missing)) ++first_missing;
    if (first_missing <= sum.shards)
        return ats::fail("the result of shard " + std::to_string(first_missing) + " of " + std::to_string(sum.shards) +
                         " is missing: run that shard, or name its file");
    sum.shards = 1;
    std::ranges::sort(sum.failures, {}, &campaign_result::failure::seed);
    return sum;
}

} // namespace campaign

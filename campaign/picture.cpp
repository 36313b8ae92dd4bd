#include "campaign/picture.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "campaign/summary.h"
#include "recording/page.h"

namespace campaign
{

std::string text_of(const std::vector<size_t>& acts)
{
    std::string text;
    for (const size_t number : acts) text += (text.empty() ? "" : ",") + std::to_string(number);
    return text.empty() ? no_acts : text;
}

namespace
{

nlohmann::ordered_json trace_levels_of(const plan& plan)
{
    nlohmann::ordered_json levels = nlohmann::ordered_json::array();
    for (const host_shape& host : plan.hosts) levels.push_back(host.trace_level);
    return levels;
}

} // namespace

ats::result<> draw(const std::string& path, const plan& plan, const std::vector<size_t>& acts, run_options options,
                   const run_result& first_run, bool is_shortened)
{
    options.log_path = options.capture_path = "";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    if (!file) return ats::fail(std::string("cannot create a file for the recording: ") + std::strerror(errno));
    options.record_file = file.get();
    const std::string only = acts.size() < plan.acts.size() ? text_of(acts) : "";
    options.command = replay_command({.seed = plan.seed,
                                      .options = plan.options,
                                      .module_folder = options.module_folder,
                                      .selection = selection_of(plan, only)});
    const ats::result<run_result> result = run_in_new_process(plan, acts, options);
    if (!result) return ats::pass_on(result);
    if (result->counts.digest != first_run.counts.digest)
        return ats::fail("the recorded run differs from the first run");
    nlohmann::ordered_json about = {{"title", "Campaign, seed " + std::to_string(plan.seed)},
                                    {"verdict", result->complaint.empty() ? "passed" : "failed"},
                                    {"replay", options.command},
                                    {"acts", acts.size()},
                                    {"planned_acts", plan.acts.size()},
                                    {"is_shortened", is_shortened},
                                    {"changes", plan.changes},
                                    {"trace_levels", trace_levels_of(plan)}};
    if (!result->complaint.empty()) about["complaint"] = result->complaint;
    const ats::result<recording::cut_recording> cut =
        recording::cut(recording::text_of_file(file.get()), {.keeps_end = !result->complaint.empty()});
    if (!cut) return ats::pass_on(cut);
    recording::add_window(about, cut->shown_window);
    return recording::write_page(path, about, cut->lines);
}

} // namespace campaign

#include "cli/replay.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "console/distinct-files.h"
#include "console/errors.h"
#include "console/usage.h"
#include "recording/cut.h"
#include "recording/page.h"

namespace cli
{

namespace
{

constexpr double ticks_per_second = 1000;
constexpr double longest_recording_seconds = 1e9; // some thirty years

struct replay_options {
    std::string recording;
    std::string html;
    double from_seconds = 0;
    double to_seconds = 0; // 0 means to the end
};

uint64_t ticks_of(double seconds)
{
    return static_cast<uint64_t>(seconds * ticks_per_second);
}

ats::result<int> replay(const replay_options& options)
{
    if (const ats::result<> result =
            console::check_distinct_files({{"FILE", options.recording}, {"--html", options.html}});
        !result)
        return ats::pass_on(result);
    std::ifstream file(options.recording, std::ios::binary);
    std::ostringstream lines;
    lines << file.rdbuf();
    if (!file) return ats::fail(ats::error_kind::invalid, "cannot read " + options.recording);
    recording::cut_options cut_options{.keeps_end = true};
    if (options.to_seconds > 0 && options.to_seconds <= options.from_seconds)
        return ats::fail(ats::error_kind::invalid, "--to must be later than --from");
    if (options.from_seconds > 0 || options.to_seconds > 0)
        cut_options.selection = {ticks_of(options.from_seconds),
                                 options.to_seconds > 0 ? ticks_of(options.to_seconds) : UINT64_MAX};
    const ats::result<recording::cut_recording> cut = recording::cut(lines.str(), cut_options);
    if (!cut) return ats::fail(cut.error().kind, options.recording + ", " + cut.error().text);
    nlohmann::ordered_json about = {{"title", "Recording " + options.recording}};
    recording::add_window(about, cut->shown_window);
    if (const ats::result<> written = recording::write_page(options.html, about, cut->lines); !written)
        return ats::fail(ats::error_kind::invalid, written.error().text);
    std::printf("The picture is in %s: open it in a browser.\n", options.html.c_str());
    if (cut->shown_window) std::printf("It shows a part of the recording. Choose another part with --from and --to.\n");
    return console::exit_ok;
}

} // namespace

void add_replay(CLI::App& program, ats::result<int>& outcome)
{
    CLI::App* command =
        program.add_subcommand("replay", "Draw a recording of 'ats run --record' as a page for a browser");
    auto options = std::make_shared<replay_options>();
    command->add_option("FILE", options->recording, "The file that 'ats run --record' has written")
        ->required()
        ->check(console::existing_file())
        ->option_text("FILE");
    command->add_option("--html", options->html, "Write the page to this file")->required()->option_text("FILE");
    command->add_option("--from", options->from_seconds, "Show datagrams and log lines from this second on")
        ->check(console::number_from(0, longest_recording_seconds))
        ->option_text("SECONDS");
    command->add_option("--to", options->to_seconds, "Show them up to this second")
        ->check(console::number_from(0, longest_recording_seconds))
        ->option_text("SECONDS");
    command->callback(console::command_callback(outcome, [options] { return replay(*options); }));
}

} // namespace cli

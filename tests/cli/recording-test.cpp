// Recordings and captures of a service, and the pages of `ats replay`: full disks, and input that is wrong.
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/cli/program.h"

namespace
{

constexpr const char* header = R"({"format":"ats-recording","version":1,"program":"a test"})";

size_t count_of(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t place = text.find(part); place != text.npos; place = text.find(part, place + 1)) ++count;
    return count;
}

// A limit for the size of files stands for a full disk: it makes a write fail in the middle of a line. Without the
// limit, the next write succeeds.
TEST(recording, full_disk_ends_the_recording_and_the_capture_with_a_warning_each)
{
    const scratch_folder folder;
    const std::string files[] = {folder / "recording", folder / "capture"};
    const auto former_action = std::signal(SIGXFSZ, SIG_IGN); // the service inherits this, so its writes fail instead
    service ats({"--hosts", "1", "--record", files[0], "--capture", files[1]});
    std::signal(SIGXFSZ, former_action);
    const auto set_limit = [&](rlim_t bytes) {
        const rlimit size{bytes, RLIM_INFINITY};
        ASSERT_EQ(prlimit(ats.pid(), RLIMIT_FSIZE, &size, nullptr), 0);
    };
    const auto warnings = [&](const std::string& file) {
        return count_of(ats.complaints(), "ats: warning: cannot write the " + file);
    };
    set_limit(std::filesystem::file_size(files[0]) + 10);
    EXPECT_TRUE(eventually([&] {
        ats.ask({"resolve", "10.0.0.1", "--verify"});
        return warnings("recording: File too large") > 0 && warnings("capture " + files[1] + ": File too large") > 0;
    })) << ats.complaints();
    const std::vector<uintmax_t> sizes = {std::filesystem::file_size(files[0]), std::filesystem::file_size(files[1])};
    set_limit(RLIM_INFINITY);
    for (int i = 0; i < 30; ++i) ats.ask({"resolve", "10.0.0.1", "--verify"}); // more than one buffer of the capture
    EXPECT_EQ(ats.stop(), 1) << "both files are incomplete";
    EXPECT_EQ(std::filesystem::file_size(files[0]), sizes[0]);
    EXPECT_EQ(std::filesystem::file_size(files[1]), sizes[1]);
    for (const char* file : {"recording", "capture"}) EXPECT_EQ(warnings(file), 1u) << ats.complaints();
    const program_result replay = run_ats({"replay", files[0], "--html", folder / "page"});
    EXPECT_EQ(replay.exit_code, 0) << replay.err;
}

TEST(recording, wrong_files_and_times_are_refused_before_anything_is_written)
{
    const scratch_folder folder;
    const std::string recording = folder / "recording", config = folder / "config", fifo = folder / "fifo";
    const std::string own_capture = folder / "own-capture", missing = folder / "missing", socket = folder / "socket";
    const std::string host = "[[host]]\naddress = \"10.0.0.1\"\n";
    const std::pair<std::string, std::string> texts[] = {
        {recording, header + std::string("\n")},
        {config, host},
        {own_capture, "[fabric]\ncapture = \"" + own_capture + "\"\n" + host}};
    for (const auto& [path, text] : texts) write_file(path, text);
    std::filesystem::create_symlink(recording, folder / "link");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string page = folder / "page";
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"replay", recording, "--html", recording}, "FILE and --html are the same file, '"},
        {{"replay", recording, "--html", folder / "link"}, "choose another file for --html"},
        {{"run", "--config", config, "--record", config}, "--config and --record are the same file"},
        {{"run", "--config", own_capture}, "--config and 'capture' in [fabric] are the same file"},
        {{"run", "--capture", missing, "--record", folder / "./missing"}, "--capture and --record are the same file"},
        {{"demo", "--capture", missing, "--html", missing}, "--capture and --html are the same file"},
        {{"run", "--record", fifo}, "fifo: it must be a regular file or a character device"},
        {{"run", "--capture", fifo}, "fifo: it must be a regular file or a character device"},
        {{"replay", recording, "--html", page, "--from", "-1"}, "'-1' is not possible: write a number from 0 to 1000"},
        {{"replay", recording, "--html", page, "--from", "inf"}, "write a number from 0 to 1000000000"},
        {{"replay", recording, "--html", page, "--to", "nan"}, "write a number from 0 to 1000000000"},
        {{"replay", recording, "--html", page, "--to", "1e300"}, "write a number from 0 to 1000000000"},
    };
    for (auto [arguments, complaint] : cases) {
        if (arguments[0] == "run") arguments.insert(arguments.end(), {"--socket", socket});
        const std::string err = folder / "err";
        ats_process process(arguments, folder / "out", err);
        const bool is_refused =
            eventually([&, &text = complaint] { return text_of_file(err).find(text) != std::string::npos; });
        EXPECT_TRUE(is_refused) << testing::PrintToString(arguments) << text_of_file(err);
        EXPECT_EQ(process.stop(is_refused ? 0 : SIGKILL), 2);
        EXPECT_LT(text_of_file(err).size(), 400u);
    }
    for (const auto& [path, text] : texts) EXPECT_EQ(text_of_file(path), text);
    for (const std::string& path : {missing, page}) EXPECT_FALSE(std::filesystem::exists(path)) << path;
}

TEST(recording, page_shows_any_recording_that_replay_accepts)
{
    const scratch_folder folder;
    const std::string recording = folder / "{{recording}}"; // looks like the mark of the page for its recording
    const auto replay = [&](const std::string& events) {
        write_file(recording, header + ("\n" + events + "\n"));
        return run_ats({"replay", recording, "--html", folder / "page"});
    };
    const std::pair<const char*, const char*> incomplete_events[] = {
        {R"({"t":1,"e":"sent","n":1})", "line 2: an event 'sent' needs the text 'from'"},
        {R"({"t":1,"e":"log","host":"node1","text":"x","level":"3"})", "an event 'log' needs the number 'level'"},
        {R"({"t":1,"e":"refused","from":"node1 a 1","method":"Set","attribute":"ServiceRecord","tid":"0x1","record":{}})",
         "the field 'record' needs the text 'gid'"},
    };
    for (const auto& [event, complaint] : incomplete_events) {
        const program_result result = replay(event);
        EXPECT_EQ(result.exit_code, 2);
        EXPECT_THAT(result.err, testing::HasSubstr(complaint));
    }
    // The log lines of the first tick alone are too many for the page.
    const std::string text(65536, 'x');
    const std::string line = R"({"t":0,"e":"log","host":"node1","level":3,"text":")" + text + "\"}";
    std::string events = R"({"t":0,"e":"unknown"})";
    for (int i = 0; i < 100; ++i) events += "\n" + line;
    EXPECT_EQ(replay(events).exit_code, 0);
    const std::string page = text_of_file(folder / "page");
    EXPECT_THAT(page.substr(0, 200'000), testing::HasSubstr("\"title\":\"Recording " + recording + '"'));
    EXPECT_LT(page.size(), size_t{1} << 20);
}

} // namespace

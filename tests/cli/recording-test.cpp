// Recordings and captures of a service, and the pages of `ats replay`: full disks, and input that is wrong.
#include <csignal>
#include <sys/resource.h>

#include "tests/cli/program.h"

namespace
{

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

} // namespace

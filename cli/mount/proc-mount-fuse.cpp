// Implements proc_mount with libfuse 3.

#include "cli/mount/proc-mount.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "cli/mount/fuse-calls.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

using ats::error_kind;

ats::result<> check_mount_point(const std::string& directory)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0) {
        if (errno == ENOTCONN)
            return ats::fail(error_kind::invalid,
                             directory + " is a mount whose service is gone: run 'fusermount3 -u " + directory + "'");
        if (errno == ENOENT)
            return ats::fail(error_kind::invalid, "no folder " + directory + " to mount on: make it with mkdir");
        return ats::fail(error_kind::invalid, "cannot look at " + directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode))
        return ats::fail(error_kind::invalid, directory + " is not a folder: name one to mount on");
    struct stat parent_status = {};
    if (stat((directory + "/..").c_str(), &parent_status) == 0 && parent_status.st_dev != status.st_dev)
        return ats::fail(error_kind::invalid,
                         "something is mounted on " + directory + " already: choose another folder");
    return {};
}

// While this object exists, libfuse does not print its error messages, and the object stores the last message. Only one
// object may exist in a process at a time.
class libfuse_complaints
{
  public:
    libfuse_complaints() { fuse_set_log_func(keep); }
    ~libfuse_complaints() { fuse_set_log_func(nullptr); }
    libfuse_complaints(const libfuse_complaints&) = delete;
    libfuse_complaints& operator=(const libfuse_complaints&) = delete;

    static inline std::string last_line;

  private:
    static void keep(fuse_log_level, const char* format, va_list arguments)
    {
        char line[256];
        std::vsnprintf(line, sizeof line, format, arguments);
        last_line = line;
        while (last_line.ends_with('\n')) last_line.pop_back();
    }
};

void do_nothing(int) {}

class fuse_mount final : public proc_mount
{
  public:
    explicit fuse_mount(const std::vector<kernel::machine*>& machines) : state_(machines) {}

    // Mounts the files, and starts the thread that serves them. Call start() once. If it fails halfway, the destructor
    // cleans up.
    ats::result<> start(const std::string& directory)
    {
        if (const ats::result<> mounted = mount(directory); !mounted) return mounted;
        struct sigaction wake_up = {}; // the destructor uses SIGUSR1 to interrupt a blocked read() in serve()
        wake_up.sa_handler = do_nothing;
        sigaction(SIGUSR1, &wake_up, nullptr);
        try {
            server_ = exec::new_thread([this] { serve(); });
        } catch (const exec::shortage& shortage) {
            return ats::fail(error_kind::no_memory, shortage.what());
        }
        return {};
    }

    // Ends the loop of serve() before the unmount, because an unmount does not wake the loop while a file is open. A
    // signal wakes the loop. The loop ends when the calls in progress have returned.
    ~fuse_mount() override
    {
        constexpr std::chrono::milliseconds repeat_interval(5);
        if (!session_) return;
        if (server_.joinable()) {
            fuse_session_exit(session_);
            while (!has_ended_) {
                pthread_kill(server_.native_handle(), SIGUSR1);
                std::this_thread::sleep_for(repeat_interval);
            }
            server_.join();
        }
        fuse_session_unmount(session_);
        fuse_session_destroy(session_);
    }

  private:
    void serve()
    {
        fuse_loop_config* config = fuse_loop_cfg_create();
        fuse_session_loop_mt(session_, config);
        fuse_loop_cfg_destroy(config);
        has_ended_ = true;
    }

    ats::result<> mount(const std::string& directory)
    {
        const libfuse_complaints complaints;
        const fuse_lowlevel_ops calls = fuse_calls();
        char program[] = "ats";
        char option[] = "-o";
        char value[] = "fsname=ats,subtype=ats";
        char* words[] = {program, option, value, nullptr};
        fuse_args arguments = FUSE_ARGS_INIT(3, words);
        session_ = fuse_session_new(&arguments, &calls, sizeof calls, &state_);
        fuse_opt_free_args(&arguments);
        if (!session_) return ats::fail("libfuse refuses to start: " + complaints.last_line);
        if (fuse_session_mount(session_, directory.c_str()) == 0) return {};
        fuse_session_destroy(session_);
        session_ = nullptr;
        return ats::fail(error_kind::invalid,
                         "cannot mount on " + directory + " (" + complaints.last_line +
                             "): check that /dev/fuse exists and that you may open it, or leave --mount out");
    }

    mount_state state_;
    fuse_session* session_ = nullptr; // null if not mounted
    std::atomic<bool> has_ended_{false};
    std::thread server_;
};

} // namespace

ats::result<std::unique_ptr<proc_mount>> proc_mount::open(const std::string& directory,
                                                          const std::vector<kernel::machine*>& machines)
{
    if (const ats::result<> usable = check_mount_point(directory); !usable) return ats::pass_on(usable);
    auto mount = std::make_unique<fuse_mount>(machines);
    if (const ats::result<> result = mount->start(directory); !result) return ats::pass_on(result);
    return mount;
}

bool proc_mount::is_available()
{
    return true;
}

} // namespace cli

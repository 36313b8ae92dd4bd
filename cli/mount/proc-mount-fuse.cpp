// The mount through libfuse 3.

#include "cli/mount/proc-mount.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "cli/mount/fuse-calls.h"
#include "console/failure.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

void check_mount_point(const std::string& directory)
{
    struct stat itself {
    };
    struct stat parent {
    };
    if (stat(directory.c_str(), &itself) != 0) {
        if (errno == ENOTCONN)
            throw console::failure(console::exit_usage, directory +
                                                            " is a mount whose service is gone: run 'fusermount3 -u " +
                                                            directory + "'");
        if (errno == ENOENT)
            throw console::failure(console::exit_usage, "no folder " + directory + " to mount on: make it with mkdir");
        throw console::failure(console::exit_usage, "cannot look at " + directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(itself.st_mode))
        throw console::failure(console::exit_usage, directory + " is no folder: name one to mount on");
    if (stat((directory + "/..").c_str(), &parent) == 0 && parent.st_dev != itself.st_dev)
        throw console::failure(console::exit_usage,
                               "something is mounted on " + directory + " already: choose another folder");
}

// What libfuse complains about in the thread that mounts, which would otherwise be printed.
class libfuse_complaints
{
  public:
    libfuse_complaints() { fuse_set_log_func(keep); }
    ~libfuse_complaints() { fuse_set_log_func(nullptr); }
    libfuse_complaints(const libfuse_complaints&) = delete;
    libfuse_complaints& operator=(const libfuse_complaints&) = delete;

    static inline std::string last;

  private:
    static void keep(fuse_log_level, const char* format, va_list arguments)
    {
        char line[256];
        std::vsnprintf(line, sizeof line, format, arguments);
        last = line;
        while (last.ends_with('\n')) last.pop_back();
    }
};

void do_nothing(int) {}

class fuse_mount final : public proc_mount
{
  public:
    fuse_mount(const std::string& directory, const std::vector<kernel::machine*>& machines) : state_(machines)
    {
        check_mount_point(directory);
        mount(directory);
        struct sigaction waking {
        };
        waking.sa_handler = do_nothing;
        sigaction(SIGUSR1, &waking, nullptr);
        try {
            server_ = exec::new_thread([this] { serve(); });
        } catch (const exec::shortage&) {
            unmount();
            throw;
        }
    }

    // The loop has to end before the unmount: as long as somebody has a file open, an unmount wakes nobody in it. It
    // ends when it is interrupted, then waiting for the calls in progress.
    ~fuse_mount() override
    {
        constexpr std::chrono::milliseconds again(5);
        fuse_session_exit(session_);
        for (; !ended_; std::this_thread::sleep_for(again)) pthread_kill(server_.native_handle(), SIGUSR1);
        server_.join();
        unmount();
    }

  private:
    void serve()
    {
        fuse_loop_config* config = fuse_loop_cfg_create();
        fuse_session_loop_mt(session_, config);
        fuse_loop_cfg_destroy(config);
        ended_ = true;
    }

    void unmount()
    {
        fuse_session_unmount(session_);
        fuse_session_destroy(session_);
    }

    void mount(const std::string& directory)
    {
        const libfuse_complaints complaints;
        const fuse_lowlevel_ops ops = fuse_calls();
        char program[] = "ats";
        char option[] = "-o";
        char value[] = "fsname=ats,subtype=ats";
        char* arguments[] = {program, option, value, nullptr};
        fuse_args args = FUSE_ARGS_INIT(3, arguments);
        session_ = fuse_session_new(&args, &ops, sizeof ops, &state_);
        fuse_opt_free_args(&args);
        if (!session_) throw console::failure(console::exit_failed, "libfuse refuses to start: " + complaints.last);
        if (fuse_session_mount(session_, directory.c_str()) == 0) return;
        fuse_session_destroy(session_);
        throw console::failure(console::exit_usage,
                               "cannot mount on " + directory + " (" + complaints.last +
                                   "): see that /dev/fuse is there and may be used, or leave --mount out");
    }

    mount_state state_;
    fuse_session* session_ = nullptr;
    std::atomic<bool> ended_{false};
    std::thread server_;
};

} // namespace

std::unique_ptr<proc_mount> proc_mount::open(const std::string& directory,
                                             const std::vector<kernel::machine*>& machines)
{
    return std::make_unique<fuse_mount>(directory, machines);
}

bool proc_mount::is_available()
{
    return true;
}

} // namespace cli

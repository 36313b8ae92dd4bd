// A child process that is watched through its output. A wait is for a line or for the end of the process, and has a
// deadline. The process never outlives its parent.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

namespace fabric_tools
{

using namespace std::chrono_literals;
using duration = std::chrono::milliseconds;

// Calls `holds` every few milliseconds until it returns true. False: it did not do so in time.
bool wait_until(const std::function<bool()>& holds, duration longest);

// From now on SIGINT, SIGTERM and SIGHUP make the current wait, or the next one, throw `interrupted`. So destructors
// end all processes. The terminal's signals do not reach the children, which have process groups of their own.
void throw_when_interrupted();
struct interrupted {
};

// A limit of a process, such as RLIMIT_AS, and its value.
struct process_limit {
    __rlimit_resource_t resource;
    rlim_t value;
};

struct command {
    std::vector<std::string> arguments;        // the program first, found as a shell finds it
    std::vector<std::string> environment = {}; // NAME=value, besides the parent's
    std::string directory = ".";
    std::string output;      // the file for stdout; no other process may write to it
    std::string errors = {}; // the file for stderr; "": the same file
    std::optional<process_limit> limit = {};
};

class process
{
  public:
    // Starts the command. Throws std::system_error when there can be no further process. A program that does not exist
    // ends with exit code 127.
    explicit process(const command& command);

    // Kills the process if it still runs.
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& folder() const { return folder_; }

    // Writes to the stdin of the process. Nothing happens if the process has ended.
    void write_line(const std::string& line);

    // Waits for a line of the output that contains `text` and follows the last line waited for; returns it. None: it
    // did not come in time, or the process has ended without it.
    std::optional<std::string> wait_line(const std::string& text, duration longest = 10s);

    // The whole output so far.
    std::string output() const;

    // Waits for the end. Returns the exit code, or minus the signal that ended it. None: it still runs after that time.
    std::optional<int> wait_end(duration longest = 10s);
    bool has_ended() { return wait_end(0s).has_value(); }

    void signal(int number) const;

    // Sends SIGTERM, and SIGKILL if the process still runs after that time. Returns what wait_end() returns.
    std::optional<int> stop(duration longest = 10s);

  private:
    const std::string folder_;
    const std::string output_path_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    size_t searched_ = 0; // bytes of the output that wait_line has searched
    std::optional<int> exit_code_;
};

} // namespace fabric_tools

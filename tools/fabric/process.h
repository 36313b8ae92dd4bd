// A child process, and its output. The wait calls wait for a line of the output or for the end of the process, and have
// deadlines. The process never outlives its parent.
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

// Calls `condition` every few milliseconds until it returns true. Returns false after the time limit. After a
// signal, one call throws `interrupted`; see throw_when_interrupted().
bool wait_until(const std::function<bool()>& condition, duration longest);

// After this call, SIGINT, SIGTERM and SIGHUP make the current or the next wait throw `interrupted`. Destructors
// then end all child processes. The children do not receive the terminal's signals, because they have their own process
// groups.
void throw_when_interrupted();
struct interrupted {
};

// A limit of a process, for example RLIMIT_AS, and its value.
struct process_limit {
    __rlimit_resource_t resource;
    rlim_t value;
};

struct command {
    std::vector<std::string> arguments;        // the first one is the program; it is searched in $PATH
    std::vector<std::string> environment = {}; // NAME=value; added to the parent's environment
    std::string directory = ".";
    std::string output;      // the file for stdout; no other process may write to it
    std::string errors = {}; // the file for stderr; "" means the file for stdout
    std::optional<process_limit> limit = {};
};

class process
{
  public:
    // Starts the command. Throws std::system_error if no process can be created. If the program does not exist or
    // cannot be started as described, the process ends with exit code 127.
    explicit process(const command& command);

    // Kills the process if it still runs.
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& folder() const { return folder_; }

    // Writes to the stdin of the process. Does nothing if the process has ended.
    void write_line(const std::string& line);

    // Waits for a line of the output that contains `text`. Searches only lines that no earlier call has searched.
    // Returns the line. Returns nothing after the time limit, or if the process has ended without such a line.
    std::optional<std::string> wait_line(const std::string& text, duration longest = 10s);

    // Returns the whole output so far.
    std::string output() const;

    // Waits for the end of the process. Returns its exit code, or the negated number of the signal that ended it.
    // Returns nothing after the time limit.
    std::optional<int> wait_end(duration longest = 10s);
    bool has_ended() { return wait_end(0s).has_value(); }

    void signal(int number) const;

    // Sends SIGTERM. If the process still runs after the time limit, sends SIGKILL. Returns the same as wait_end().
    std::optional<int> stop(duration longest = 10s);

  private:
    const std::string folder_;
    const std::string output_path_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    size_t searched_ = 0; // number of bytes of the output that wait_line() has searched
    std::optional<int> exit_code_;
};

} // namespace fabric_tools

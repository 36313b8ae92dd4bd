// A child process that is watched through what it writes: waits are for a line, or for its end, with a deadline. It
// never outlives its parent.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fabric_tools
{

using namespace std::chrono_literals;
using duration = std::chrono::milliseconds;

// Looks again and again, every few milliseconds, until `holds` does. False: it did not in time.
bool wait_until(const std::function<bool()>& holds, duration longest);

// From now on SIGINT, SIGTERM and SIGHUP make the wait that is going on, or the next, throw `interrupted`, so that all
// that was started is ended by destructors. Children are not reached by the terminal's signals.
void throw_when_interrupted();
struct interrupted {
};

struct command {
    std::vector<std::string> arguments;        // the program first, found as a shell finds it
    std::vector<std::string> environment = {}; // NAME=value, besides the parent's
    std::string directory = ".";
    std::string output; // the file that stdout and stderr go to, which must be its own
};

class process
{
  public:
    // Throws std::system_error when it cannot be started. A program that does not exist ends with 127.
    explicit process(const command& started);

    // Kills it if it still runs.
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& folder() const { return folder_; }

    // To its stdin; a process that has ended does not read it.
    void write_line(const std::string& line);

    // Waits for a line that holds `text` and comes after the last line waited for. None: it did not come in time, or
    // the process has ended without it.
    std::optional<std::string> wait_line(const std::string& text, duration longest = 10s);

    // All that it has written.
    std::string output() const;

    // Its exit code, or minus the signal that ended it. None: it still runs after that time.
    std::optional<int> wait_end(duration longest = 10s);
    bool has_ended() { return wait_end(0s).has_value(); }

    void signal(int number) const;

    // Asks it to end, and kills it if it does not. Its exit code as wait_end() tells it.
    std::optional<int> stop(duration longest = 10s);

  private:
    const std::string folder_;
    const std::string output_path_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    size_t read_ = 0; // bytes of the output that wait_line is through with
    std::optional<int> ended_;
};

} // namespace fabric_tools

#include "tools/fabric/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fabric_tools
{

namespace
{

constexpr duration look_again = 2ms;

volatile sig_atomic_t was_interrupted = 0;
bool is_ending = false; // the wait was interrupted; destructors are at work and are let alone

std::vector<char*> pointers_to(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (const std::string& each : texts) pointers.push_back(const_cast<char*>(each.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// Of several values of a name the first counts.
std::vector<std::string> whole_environment(const std::vector<std::string>& added)
{
    std::vector<std::string> all;
    const auto add = [&all](const std::string& variable) {
        const std::string name = variable.substr(0, variable.find('=') + 1);
        if (std::ranges::none_of(all, [&](const std::string& known) { return known.starts_with(name); }))
            all.push_back(variable);
    };
    std::ranges::for_each(added, add);
    for (char** each = environ; *each; ++each) add(*each);
    return all;
}

// In the child: runs the command, or ends as a shell would. Only calls that are safe after a fork.
[[noreturn]] void become(const command& started, char* const* arguments, char* const* environment, pid_t parent,
                         int input)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    const int output = ::open(started.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    const bool is_ready = getppid() == parent && output >= 0 && dup2(input, 0) == 0 && dup2(output, 1) == 1 &&
                          dup2(output, 2) == 2 && chdir(started.directory.c_str()) == 0;
    if (is_ready) execvpe(arguments[0], arguments, environment);
    _exit(127);
}

} // namespace

void throw_when_interrupted()
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, [](int) { was_interrupted = 1; });
}

bool wait_until(const std::function<bool()>& holds, duration longest)
{
    const auto deadline = std::chrono::steady_clock::now() + longest;
    while (!holds()) {
        if (was_interrupted && !std::exchange(is_ending, true)) throw interrupted();
        if (std::chrono::steady_clock::now() >= deadline) return holds();
        std::this_thread::sleep_for(look_again);
    }
    return true;
}

process::process(const command& started) : folder_(started.directory), output_path_(started.output)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    const std::vector<std::string> environment = whole_environment(started.environment);
    const std::vector<char*> arguments = pointers_to(started.arguments), variables = pointers_to(environment);
    std::ofstream(output_path_, std::ios::trunc).close(); // there is something to read from the first moment
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) become(started, arguments.data(), variables.data(), parent, ends[0]);
    const int reason = errno;
    ::close(ends[0]);
    stdin_ = ends[1];
    if (pid_ < 0) {
        ::close(stdin_);
        throw std::system_error(reason, std::generic_category(), "fork");
    }
}

process::~process()
{
    if (!has_ended()) {
        signal(SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    ::close(stdin_);
}

void process::write_line(const std::string& line)
{
    const std::string text = line + "\n";
    struct sigaction ignore = {}, before = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(stdin_, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) break;
        if (count > 0) written += static_cast<size_t>(count);
    }
    sigaction(SIGPIPE, &before, nullptr);
}

std::string process::output() const
{
    std::ostringstream all;
    all << std::ifstream(output_path_).rdbuf();
    return all.str();
}

std::optional<std::string> process::wait_line(const std::string& text, duration longest)
{
    std::optional<std::string> found;
    const auto look = [&] {
        const bool was_over = has_ended(); // before reading: what it wrote last is still seen
        const std::string all = output();
        for (size_t end; (end = all.find('\n', read_)) != std::string::npos;) {
            const std::string line = all.substr(read_, end - read_);
            read_ = end + 1;
            if (line.find(text) == std::string::npos) continue;
            found = line;
            return true;
        }
        return was_over;
    };
    wait_until(look, longest);
    return found;
}

std::optional<int> process::wait_end(duration longest)
{
    wait_until(
        [this] {
            int status;
            if (!ended_ && waitpid(pid_, &status, WNOHANG) == pid_)
                ended_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            return ended_.has_value();
        },
        longest);
    return ended_;
}

void process::signal(int number) const
{
    if (!ended_) kill(pid_, number);
}

std::optional<int> process::stop(duration longest)
{
    signal(SIGTERM);
    if (!wait_end(longest)) {
        signal(SIGKILL);
        wait_end();
    }
    return ended_;
}

} // namespace fabric_tools

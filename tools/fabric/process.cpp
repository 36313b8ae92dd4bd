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

namespace fabric_tools
{

namespace
{

constexpr duration poll_period = 2ms;

volatile sig_atomic_t was_interrupted = 0;
// True after `interrupted` was thrown. wait_until() does not throw it again, because destructors must be able to wait.
bool is_ending = false;

std::vector<char*> pointers_to(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (const std::string& each : texts) pointers.push_back(const_cast<char*>(each.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// Returns the additions, followed by the parent's environment. If a name occurs twice, only the first value is kept.
std::vector<std::string> whole_environment(const std::vector<std::string>& additions)
{
    std::vector<std::string> all;
    const auto add = [&all](const std::string& variable) {
        const std::string name = variable.substr(0, variable.find('=') + 1);
        if (std::ranges::none_of(all, [&](const std::string& other) { return other.starts_with(name); }))
            all.push_back(variable);
    };
    std::ranges::for_each(additions, add);
    for (char** each = environ; *each; ++each) add(*each);
    return all;
}

int open_output(const std::string& path)
{
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
}

bool set_limit(const process_limit& limit)
{
    const rlimit values{limit.value, limit.value};
    return setrlimit(limit.resource, &values) == 0;
}

// Runs in the child: executes the command. If this is not possible, exits with code 127, like a shell that does not
// find a program. Makes only calls that are safe after a fork.
[[noreturn]] void become(const command& command, char* const* arguments, char* const* environment, pid_t parent,
                         int input)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    signal(SIGINT, SIG_DFL); // if a shell started the parent with "&", this process has inherited an ignored SIGINT
    const int output = open_output(command.output);
    const int errors = command.errors.empty() ? output : open_output(command.errors);
    const bool is_ready = getppid() == parent && output >= 0 && errors >= 0 && dup2(input, 0) == 0 &&
                          dup2(output, 1) == 1 && dup2(errors, 2) == 2 && chdir(command.directory.c_str()) == 0;
    if (is_ready && (!command.limit || set_limit(*command.limit))) execvpe(arguments[0], arguments, environment);
    _exit(127);
}

} // namespace

void throw_when_interrupted()
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, [](int) { was_interrupted = 1; });
}

bool wait_until(const std::function<bool()>& condition, duration longest)
{
    const auto deadline = std::chrono::steady_clock::now() + longest;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition(); // without a wait, nothing is thrown
        if (was_interrupted && !is_ending) {
            is_ending = true;
            throw interrupted();
        }
        std::this_thread::sleep_for(poll_period);
    }
    return true;
}

process::process(const command& command) : folder_(command.directory), output_path_(command.output)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    const std::vector<std::string> environment = whole_environment(command.environment);
    const std::vector<char*> arguments = pointers_to(command.arguments), variables = pointers_to(environment);
    std::ofstream(output_path_, std::ios::trunc).close(); // creates the file, so that output() can read it from now on
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) become(command, arguments.data(), variables.data(), parent, ends[0]);
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
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(stdin_, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) break;
        if (count > 0) written += static_cast<size_t>(count);
    }
    sigaction(SIGPIPE, &previous, nullptr);
}

std::string process::output() const
{
    std::ostringstream all;
    all << std::ifstream(output_path_).rdbuf();
    return all.str();
}

std::optional<std::string> process::wait_line(const std::string& text, duration longest)
{
    std::optional<std::string> match;
    const auto look = [&] {
        // This check comes before the read: if the process has ended, the read then gets all output.
        const bool was_over = has_ended();
        const std::string all = output();
        while (true) {
            const size_t end = all.find('\n', searched_);
            if (end == std::string::npos) return was_over;
            const std::string line = all.substr(searched_, end - searched_);
            searched_ = end + 1;
            if (line.find(text) == std::string::npos) continue;
            match = line;
            return true;
        }
    };
    wait_until(look, longest);
    return match;
}

std::optional<int> process::wait_end(duration longest)
{
    wait_until(
        [this] {
            int status;
            if (!exit_code_ && waitpid(pid_, &status, WNOHANG) == pid_)
                exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            return exit_code_.has_value();
        },
        longest);
    return exit_code_;
}

void process::signal(int number) const
{
    if (!exit_code_) kill(pid_, number);
}

std::optional<int> process::stop(duration longest)
{
    signal(SIGTERM);
    if (!wait_end(longest)) {
        signal(SIGKILL);
        wait_end();
    }
    return exit_code_;
}

} // namespace fabric_tools

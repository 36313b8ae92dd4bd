// The program as its users meet it: started with arguments, watched through its output, files and exit code.
#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

// A folder of the test's own, gone with it.
class scratch_folder
{
  public:
    scratch_folder()
    {
        std::string name = std::filesystem::temp_directory_path() / "ats-test-XXXXXX";
        if (!mkdtemp(name.data())) throw std::runtime_error("cannot make " + name);
        path_ = name;
    }
    ~scratch_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;

    std::string operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

inline std::string text_of_file(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

// Waits for what other processes bring about; false when a minute was not enough.
inline bool eventually(const std::function<bool()>& holds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A limit of a process: RLIMIT_AS say, and its value.
struct process_limit {
    __rlimit_resource_t resource;
    rlim_t value;
};

// A process that runs `ats` with these arguments, its output going into two files.
class ats_process
{
  public:
    ats_process(std::vector<std::string> arguments, const std::string& out, const std::string& err,
                const std::optional<process_limit>& limit = {})
    {
        arguments.insert(arguments.begin(), ATS_PROGRAM);
        std::vector<char*> pointers;
        for (std::string& argument : arguments) pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        pid_ = fork();
        if (pid_ != 0) return;
        signal(SIGINT, SIG_DFL); // a test in the background of a shell is told to ignore it
        if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(126);
        if (limit) {
            const rlimit both{limit->value, limit->value};
            if (setrlimit(limit->resource, &both) != 0) _exit(126);
        }
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    ~ats_process()
    {
        if (pid_ > 0) kill(pid_, SIGKILL);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    ats_process(const ats_process&) = delete;
    ats_process& operator=(const ats_process&) = delete;

    pid_t pid() const { return pid_; }

    // Its exit code, or the negative number of the signal that killed it. Waits.
    int wait()
    {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int stop(int signal = SIGTERM)
    {
        kill(pid_, signal);
        return wait();
    }

  private:
    pid_t pid_ = 0;
};

struct program_result {
    int exit_code;
    std::string out;
    std::string err;

    json answer() const { return json::parse(out, nullptr, false); }
};

inline program_result run_ats(const std::vector<std::string>& arguments)
{
    const scratch_folder folder;
    ats_process process(arguments, folder / "out", folder / "err");
    const int exit_code = process.wait();
    return {exit_code, text_of_file(folder / "out"), text_of_file(folder / "err")};
}

// `ats run` in the background, up and serving.
class service
{
  public:
    explicit service(std::vector<std::string> options = {"--hosts", "3"})
        : process_(arguments(std::move(options)), folder / "out", folder / "err")
    {
        EXPECT_TRUE(eventually([this] { return output().find(" up; clients are served") != std::string::npos; }))
            << output() << text_of_file(folder / "err");
    }

    std::string socket() const { return folder / "socket"; }
    std::string output() const { return text_of_file(folder / "out"); }
    std::string complaints() const { return text_of_file(folder / "err"); }
    pid_t pid() const { return process_.pid(); }
    int stop(int signal = SIGTERM) { return process_.stop(signal); }

    // A client of this service.
    program_result ask(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--socket", socket()});
        return run_ats(arguments);
    }
    json ask_json(std::vector<std::string> arguments) const
    {
        arguments.push_back("--json");
        return ask(std::move(arguments)).answer();
    }

    const scratch_folder folder;

  private:
    std::vector<std::string> arguments(std::vector<std::string> options) const
    {
        options.insert(options.begin(), {"run", "--socket", socket()});
        return options;
    }

    ats_process process_;
};

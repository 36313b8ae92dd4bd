// Runs the program `ats` like its users: starts it with arguments, and reads its output, its files and its exit code.
#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tools/fabric/process.h"

using nlohmann::json;

// A folder for one test. The destructor removes it.
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

// Waits until `holds` returns true; other processes or threads make it true. Returns false after a minute.
inline bool eventually(const std::function<bool()>& holds)
{
    return fabric_tools::wait_until(holds, std::chrono::minutes(1));
}

// A process that runs `ats` with these arguments. Its output goes to two files.
class ats_process
{
  public:
    ats_process(std::vector<std::string> arguments, const std::string& out, const std::string& err,
                const std::optional<fabric_tools::process_limit>& limit = {})
        : process_({.arguments = with_program(std::move(arguments)), .output = out, .errors = err, .limit = limit})
    {
    }

    pid_t pid() const { return process_.pid(); }

    // Waits until the process has ended. Returns its exit code, or the negated number of the signal that has killed it.
    // Throws std::bad_optional_access after an hour.
    int wait()
    {
        constexpr std::chrono::hours no_limit(1);
        return process_.wait_end(no_limit).value();
    }
    // Sends the signal; 0 means no signal. Then does the same as wait().
    int stop(int signal = SIGTERM)
    {
        process_.signal(signal);
        return wait();
    }

  private:
    static std::vector<std::string> with_program(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), ATS_PROGRAM);
        return arguments;
    }

    fabric_tools::process process_;
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

// `ats run` in the background. The constructor expects that the service serves clients within a minute, and waits for
// that.
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

    // Runs a client of this service with these arguments.
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

#include "cli/program.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <unistd.h>

#include "cli/check.h"
#include "cli/commands/client-commands.h"
#include "cli/demo/demo.h"
#include "cli/replay.h"
#include "cli/run.h"
#include "console/errors.h"
#include "console/journal.h"
#include "console/usage.h"

namespace
{

constexpr const char* summary =
    "InfiniBand address translation service: finds the GID of an IPv4 address, and the address of a GID.";

constexpr const char* footer = "Exit codes: 0  done\n"
                               "            1  executed without success (not found, timed out, a step failed)\n"
                               "            2  the command line, an argument, a file or a folder is wrong\n"
                               "            3  no service answers on the socket\n"
                               "\n"
                               "Start with 'ats demo', or 'ats run' in one terminal and 'ats status' in another. "
                               "See ats(8), ats-run(8).";

// If stdin, stdout or stderr is closed, opens /dev/null in its place. Without this, the next file or socket would get
// the free number, and with it the program's output.
void open_closed_standard_files()
{
    for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(file, F_GETFD) < 0 && errno == EBADF) open("/dev/null", O_RDWR); // gets the lowest free number
}

// `ats help COMMAND...` means `ats COMMAND... --help`, and `ats version` means `ats --version`.
std::vector<std::string> with_options_for_words(std::vector<std::string> words)
{
    if (words.front() == "version" && words.size() == 1) words.front() = "--version";
    if (words.front() != "help") return words;
    if (words.size() > 1 && words[1].starts_with("-")) return words;
    words.erase(words.begin());
    words.emplace_back("--help");
    return words;
}

// Parses the words. CLI11 then runs the command, which stores its result in `outcome`. Returns `outcome`, the error in
// the command line, or the error of an exception that the command has thrown. For --help and --version, prints the text
// and returns its exit code.
ats::result<int> parse_and_run(CLI::App& program, std::vector<std::string> words, const ats::result<int>& outcome)
{
    using ats::error_kind;
    std::reverse(words.begin(), words.end()); // CLI11 reads them from the end
    try {
        program.parse(words);
        return outcome;
    } catch (const CLI::Success& request) { // --help or --version
        if (program.remaining().empty()) return program.exit(request);
        return ats::fail(error_kind::invalid, console::complaint_about(program, request));
    } catch (const CLI::ParseError& error) {
        return ats::fail(error_kind::invalid, console::complaint_about(program, error));
    } catch (const std::bad_alloc&) {
        return ats::fail(error_kind::no_memory,
                         "the memory is used up: raise the limit (ulimit -v, LimitAS= of a unit)");
    } catch (const std::exception& error) {
        return ats::fail(error.what());
    }
}

// Returns `exit_code`. If the output could not be written completely, for example because the disk is full, prints an
// error and returns exit_failed instead of exit_ok.
int exit_code_after_output(int exit_code)
{
    const bool is_whole = std::cout.flush() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (is_whole) return exit_code;
    std::fputs("ats: not all of the output could be written\n", stderr);
    return exit_code == console::exit_ok ? console::exit_failed : exit_code;
}

} // namespace

int cli::run_program(int argc, char** argv)
{
    open_closed_standard_files();
    CLI::App program(summary, "ats");
    program.footer(footer);
    program.set_version_flag("-v,--version", "ats " ATS_VERSION);
    program.require_subcommand(1);

    ats::result<int> outcome = console::exit_ok;
    add_demo(program, outcome);
    add_run(program, outcome);
    add_replay(program, outcome);
    add_check(program, outcome);
    add_queries(program, outcome);
    add_orders(program, outcome);
    program.add_subcommand("help", "Show how to use ats or one of its commands: ats help COMMAND");
    program.add_subcommand("version", "Print the version");
    if (argc < 2) {
        std::fputs(program.help().c_str(), stderr);
        return console::exit_usage;
    }
    const ats::result<int> exit_code = parse_and_run(program, with_options_for_words({argv + 1, argv + argc}), outcome);
    if (exit_code) return exit_code_after_output(*exit_code);
    console::print({.priority = console::priority::error, .text = exit_code.error().text});
    return exit_code_after_output(console::exit_code_of(exit_code.error().kind));
}

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>

#include "cli/check.h"
#include "cli/client/client-commands.h"
#include "cli/demo/demo.h"
#include "cli/service/run.h"
#include "console/failure.h"
#include "console/usage.h"
#include "host/world/printable.h"

namespace
{

constexpr const char* summary =
    "InfiniBand address translation service: which GID owns an IPv4 address, and the other way round.";

constexpr const char* footer =
    "Exit codes: 0  done\n"
    "            1  carried out, and the answer is no (not found, timed out, a step failed)\n"
    "            2  the command line, an argument, a file or a folder is wrong\n"
    "            3  no service answers on the socket\n"
    "\n"
    "Start with 'ats demo', or 'ats run' in one terminal and 'ats status' in another. "
    "See ats(8), ats-run(8).";

// An error may repeat what others wrote, such as a line of a file.
void complain(const std::string& why)
{
    std::fprintf(stderr, "ats: %s\n", world::printable_lines(why).c_str());
}

int run(CLI::App& program, std::vector<std::string> words, const int& exit_code)
{
    try {
        std::reverse(words.begin(), words.end()); // as CLI11 takes them
        program.parse(words);
        return exit_code;
    } catch (const CLI::Success& shown) { // --help and --version
        if (program.remaining().empty()) return program.exit(shown);
        complain(console::complaint_about(program, shown));
        return console::exit_usage;
    } catch (const CLI::ParseError& wrong) {
        complain(console::complaint_about(program, wrong));
        return console::exit_usage;
    } catch (const console::failure& failed) {
        complain(failed.what());
        return failed.code;
    } catch (const nlohmann::json::exception&) {
        std::fputs("ats: the service gave an answer that this command does not understand: are both of one version?\n",
                   stderr);
        return console::exit_unreachable;
    } catch (const std::bad_alloc&) {
        std::fputs("ats: the memory is used up: raise the limit (ulimit -v, LimitAS= of a unit)\n", stderr);
        return console::exit_failed;
    } catch (const std::exception& failed) {
        complain(failed.what());
        return console::exit_failed;
    }
}

// Output that did not get where it was to go, onto a full disk say, is no success.
int after_output(int exit_code)
{
    const bool is_whole = std::cout.flush() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (is_whole) return exit_code;
    std::fputs("ats: not all of the output could be written\n", stderr);
    return exit_code == console::exit_ok ? console::exit_failed : exit_code;
}

} // namespace

// `ats help COMMAND...` is `ats COMMAND... --help`, and `ats version` is `ats --version`.
std::vector<std::string> as_options(std::vector<std::string> words)
{
    if (words.front() == "version" && words.size() == 1) words.front() = "--version";
    if (words.front() != "help") return words;
    if (words.size() > 1 && words[1].starts_with("-")) return words;
    words.erase(words.begin());
    words.emplace_back("--help");
    return words;
}

int main(int argc, char** argv)
{
    CLI::App program(summary, "ats");
    program.footer(footer);
    program.set_version_flag("-v,--version", "ats " ATS_VERSION);
    program.require_subcommand(1);

    int exit_code = console::exit_ok;
    cli::add_demo(program, exit_code);
    cli::add_run(program, exit_code);
    cli::add_check(program, exit_code);
    cli::add_queries(program, exit_code);
    cli::add_orders(program, exit_code);
    program.add_subcommand("help", "Say how to use ats, or a command of it: ats help COMMAND");
    program.add_subcommand("version", "Print the version");
    if (argc < 2) {
        std::fputs(program.help().c_str(), stderr);
        return console::exit_usage;
    }
    return after_output(run(program, as_options({argv + 1, argv + argc}), exit_code));
}

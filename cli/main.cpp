#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/commands.h"

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

// What is wrong with a command line, and where to look it up.
int refuse(const CLI::App& program, const CLI::ParseError& wrong)
{
    const CLI::App* command = &program; // the one that was being parsed
    std::string typed = program.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        typed += " " + command->get_name();
    }
    const std::vector<std::string> strange = command->remaining();
    const bool wants_command = command->get_require_subcommand_min() > 0;
    std::string why = wrong.what();
    if (wants_command && !strange.empty())
        why =
            (strange.front().starts_with("-") ? "unknown option " : "unknown command ") + cli::quoted(strange.front());
    std::fprintf(stderr, "ats: %s\nTry '%s --help'.\n", why.c_str(), typed.c_str());
    return cli::exit_usage;
}

int run(CLI::App& program, int argc, char** argv, const int& exit_code)
{
    try {
        program.parse(argc, argv);
        return exit_code;
    } catch (const CLI::Success& shown) { // --help and --version
        return program.exit(shown);
    } catch (const CLI::ParseError& wrong) {
        return refuse(program, wrong);
    } catch (const cli::failure& failed) {
        std::fprintf(stderr, "ats: %s\n", failed.what());
        return failed.code;
    } catch (const nlohmann::json::exception&) {
        std::fputs("ats: the service gave an answer that this command does not understand: are both of one version?\n",
                   stderr);
        return cli::exit_unreachable;
    } catch (const std::exception& failed) {
        std::fprintf(stderr, "ats: %s\n", failed.what());
        return cli::exit_failed;
    }
}

// Output that did not get where it was to go, onto a full disk say, is no success.
int after_output(int exit_code)
{
    const bool is_whole = std::cout.flush() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (is_whole) return exit_code;
    std::fputs("ats: not all of the output could be written\n", stderr);
    return exit_code == cli::exit_ok ? cli::exit_failed : exit_code;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App program(summary, "ats");
    program.footer(footer);
    program.set_version_flag("--version", "ats " ATS_VERSION);
    program.require_subcommand(1);

    int exit_code = cli::exit_ok;
    cli::add_demo(program, exit_code);
    cli::add_run(program, exit_code);
    cli::add_check(program, exit_code);
    cli::add_clients(program, exit_code);
    if (argc < 2) {
        std::fputs(program.help().c_str(), stderr);
        return cli::exit_usage;
    }
    return after_output(run(program, argc, argv, exit_code));
}

// The manual pages must name the same commands, options and exit codes as --help. The bash completion must offer the
// long options of each command.
#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "tests/cli/program.h"

namespace
{

using testing::IsSubsetOf;
using words = std::vector<std::string>;

// The options in a text. An option is one or two dashes and a word of lower-case letters and dashes.
std::set<std::string> options_in(const std::string& text)
{
    std::set<std::string> options;
    std::string word;
    for (const char character : text + " ") {
        if (std::islower(character) || character == '-') {
            word += character;
            continue;
        }
        const size_t name = word.find_first_not_of('-');
        if (name == 1 || name == 2) options.insert(word);
        word.clear();
    }
    return options;
}

// Returns the left column of one section of a help text.
words left_column(const std::string& help, const std::string& heading)
{
    words column;
    std::istringstream lines(help.substr(std::min(help.size(), help.find("\n" + heading + ":\n") + 1)));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line) && line.starts_with("  "))
        column.push_back(line.substr(2, line.find("  ", 2) - 2));
    return column;
}

// The options that --help lists, for the given command and all its subcommands. The key is the command, word by word;
// {} is the program itself.
std::map<words, std::set<std::string>> options_by_command(const words& command = {})
{
    words arguments = command;
    arguments.push_back("--help");
    const std::string help = run_ats(arguments).out;
    std::map<words, std::set<std::string>> options;
    for (const std::string& option : left_column(help, "Options")) options[command].merge(options_in(option));
    for (const std::string& name : left_column(help, "Subcommands")) {
        words subcommand = command;
        subcommand.push_back(name);
        options.merge(options_by_command(subcommand));
    }
    return options;
}

// The source of a manual page. Each escaped dash (backslash and dash) is replaced by a dash.
std::string manual(const std::string& page)
{
    std::string source = text_of_file(ATS_SOURCE_DIR "/man/" + page + ".in");
    for (size_t dash = source.find("\\-"); dash != std::string::npos; dash = source.find("\\-", dash))
        source.erase(dash, 1);
    return source;
}

TEST(documents, manual_pages_name_the_options_of_every_command_and_no_others)
{
    const auto commands = options_by_command();
    ASSERT_GE(commands.size(), 17u);
    std::set<std::string> other_options;
    for (const auto& [command, options] : commands)
        if (command != words{"run"}) other_options.insert(options.begin(), options.end());

    for (const auto& [page, options] : {std::pair{"ats.8", other_options}, std::pair{"ats-run.8", commands.at({"run"})},
                                        std::pair{"ats-replay.8", commands.at({"replay"})}}) {
        const std::set<std::string> page_options = options_in(manual(page));
        EXPECT_THAT(options, IsSubsetOf(page_options)) << page;
        std::set<std::string> foreign;
        std::ranges::set_difference(page_options, options, std::inserter(foreign, foreign.end()));
        // A page may also mention options of other commands: --hosts and --record of `ats run`, -f of tail, -r of jq.
        EXPECT_THAT(foreign, IsSubsetOf({"--hosts", "--record", "-r", "-f"})) << page;
    }
}

TEST(documents, manual_page_and_completion_have_every_command_and_its_options)
{
    const std::string page = manual("ats.8");
    for (const auto& [command, options] : options_by_command()) {
        std::string command_line = "ats";
        for (const std::string& word : command) command_line += " " + word;
        SCOPED_TRACE(command_line);
        if (!command.empty()) {
            EXPECT_THAT(page, testing::HasSubstr(command_line.substr(4)));
        }

        // Runs the completion function in bash, like the Tab key after the command.
        const std::string script = "source " ATS_SOURCE_DIR "/dist/ats.bash-completion; COMP_WORDS=(" + command_line +
                                   " \"\"); COMP_CWORD=" + std::to_string(command.size() + 1) +
                                   "; _ats; echo \" ${COMPREPLY[*]} \"";
        FILE* shell = popen(("bash -c '" + script + "'").c_str(), "r");
        std::string completions(4096, '\0');
        completions.resize(fread(completions.data(), 1, completions.size(), shell));
        EXPECT_EQ(pclose(shell), 0);
        for (const std::string& option : options)
            if (option.starts_with("--")) {
                EXPECT_THAT(completions, testing::HasSubstr(" " + option + " "));
            }
    }
}

TEST(documents, exit_codes_of_help_are_those_of_the_manual)
{
    const std::string help = run_ats({"--help"}).out;
    const std::string page = manual("ats.8");
    for (const char code : {'0', '1', '2', '3', '4'}) {
        const bool is_in_help =
            help.find(std::string(" ") + code + "  ", help.find("Exit codes:")) != std::string::npos;
        const bool is_in_manual =
            page.find(std::string("\n.B ") + code + "\n", page.find("EXIT STATUS")) != std::string::npos;
        EXPECT_EQ(is_in_help, code != '4') << code;
        EXPECT_EQ(is_in_manual, is_in_help) << code;
    }
}

} // namespace

// What is written about the command agrees with what the command says of itself.
#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "tests/cli/program.h"

namespace
{

using testing::IsSubsetOf;
using words = std::vector<std::string>;

// The options that a text names: words of a dash or two and letters.
std::set<std::string> options_in(const std::string& text)
{
    std::set<std::string> found;
    std::string word;
    for (const char each : text + " ") {
        if (std::islower(each) || each == '-') {
            word += each;
            continue;
        }
        const size_t name = word.find_first_not_of('-');
        if (name == 1 || name == 2) found.insert(word);
        word.clear();
    }
    return found;
}

// What the lines of a section of a help text begin with.
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

// The options of every command, by the words that lead to it, as --help lists them. {} is the program itself.
std::map<words, std::set<std::string>> options_by_command(const words& command = {})
{
    words asked = command;
    asked.push_back("--help");
    const std::string help = run_ats(asked).out;
    std::map<words, std::set<std::string>> found;
    for (const std::string& option : left_column(help, "Options")) found[command].merge(options_in(option));
    for (const std::string& name : left_column(help, "Subcommands")) {
        words below = command;
        below.push_back(name);
        found.merge(options_by_command(below));
    }
    return found;
}

// The source of a manual page, its dashes plain.
std::string manual(const std::string& page)
{
    std::string source = text_of_file(ATS_SOURCE_DIR "/man/" + page + ".in");
    for (size_t at = source.find("\\-"); at != std::string::npos; at = source.find("\\-", at)) source.erase(at, 1);
    return source;
}

TEST(documents, manual_pages_name_the_options_of_every_command_and_no_others)
{
    const auto commands = options_by_command();
    ASSERT_GE(commands.size(), 17u);
    std::set<std::string> of_run = commands.at({"run"});
    std::set<std::string> of_the_others;
    for (const auto& [command, options] : commands)
        if (command != words{"run"}) of_the_others.insert(options.begin(), options.end());

    for (const auto& [page, options] : {std::pair{"ats.8", of_the_others}, std::pair{"ats-run.8", of_run}}) {
        const std::set<std::string> named = options_in(manual(page));
        EXPECT_THAT(options, IsSubsetOf(named)) << page;
        std::set<std::string> foreign;
        std::ranges::set_difference(named, options, std::inserter(foreign, foreign.end()));
        // Of other commands, in examples: `run` in ats(8), `tail -f` and `jq -r`.
        EXPECT_THAT(foreign, IsSubsetOf({"--hosts", "-r", "-f"})) << page;
    }
}

TEST(documents, manual_page_and_completion_have_every_command_and_its_options)
{
    const std::string page = manual("ats.8");
    for (const auto& [command, options] : options_by_command()) {
        std::string typed = "ats";
        for (const std::string& word : command) typed += " " + word;
        SCOPED_TRACE(typed);
        if (!command.empty()) {
            EXPECT_THAT(page, testing::HasSubstr(typed.substr(4)));
        }

        // The words are plain, so that quotation marks around all are enough.
        const std::string script = "source " ATS_SOURCE_DIR "/dist/ats.bash-completion; COMP_WORDS=(" + typed +
                                   " \"\"); COMP_CWORD=" + std::to_string(command.size() + 1) +
                                   "; _ats; echo \" ${COMPREPLY[*]} \"";
        FILE* shell = popen(("bash -c '" + script + "'").c_str(), "r");
        std::string offered(4096, '\0');
        offered.resize(fread(offered.data(), 1, offered.size(), shell));
        EXPECT_EQ(pclose(shell), 0);
        for (const std::string& option : options)
            if (option.starts_with("--")) {
                EXPECT_THAT(offered, testing::HasSubstr(" " + option + " "));
            }
    }
}

TEST(documents, exit_codes_of_help_are_those_of_the_manual)
{
    const std::string help = run_ats({"--help"}).out;
    const std::string page = manual("ats.8");
    for (const char code : {'0', '1', '2', '3', '4'}) {
        const bool told = help.find(std::string(" ") + code + "  ", help.find("Exit codes:")) != std::string::npos;
        const bool written =
            page.find(std::string("\n.B ") + code + "\n", page.find("EXIT STATUS")) != std::string::npos;
        EXPECT_EQ(told, code != '4') << code;
        EXPECT_EQ(written, told) << code;
    }
}

} // namespace

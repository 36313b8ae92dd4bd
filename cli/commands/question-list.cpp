#include "cli/commands/question-list.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include <fmt/format.h>

namespace cli
{

namespace
{

constexpr const char* blanks = " \t\r\v\f";

constexpr size_t longest_line_bytes = 65536; // limits the memory for input that is not a list of questions

// Reads the next line of stdin without its line end. A line that is too long is cut after longest_line_bytes + 1.
// Returns false at the end and after an error.
bool read_line(std::string& line)
{
    line.clear();
    int character = 0;
    while (line.size() <= longest_line_bytes && (character = std::getc(stdin)) != EOF && character != '\n')
        line += static_cast<char>(character);
    return character == '\n' || !line.empty();
}

// Returns the question in a line, or "" if there is none.
std::string question_in(std::string line)
{
    for (size_t mark = line.find('#'); mark != std::string::npos; mark = line.find('#', mark + 1))
        if (mark == 0 || std::strchr(blanks, line[mark - 1])) line.resize(mark);
    const size_t start = line.find_first_not_of(blanks);
    if (start == std::string::npos) return "";
    return line.substr(start, line.find_last_not_of(blanks) - start + 1);
}

// Appends the questions of stdin.
ats::result<> append_stdin(std::vector<std::string>& questions, const std::string& argument)
{
    std::string line;
    for (size_t number = 1; read_line(line); ++number) {
        if (line.size() > longest_line_bytes)
            return ats::fail(ats::error_kind::invalid,
                             fmt::format("line {} of stdin has more than {} bytes: write one {} on each line", number,
                                         longest_line_bytes, argument));
        std::string question = question_in(std::move(line));
        if (!question.empty()) questions.push_back(std::move(question));
    }
    if (std::ferror(stdin) == 0) return {};
    return ats::fail(ats::error_kind::invalid, std::string("stdin cannot be read: ") + std::strerror(errno));
}

} // namespace

ats::result<std::vector<std::string>> with_questions_of_stdin(const std::vector<std::string>& arguments,
                                                              const std::string& argument)
{
    std::vector<std::string> questions;
    for (const std::string& each : arguments) {
        if (each != "-") {
            questions.push_back(each);
            continue;
        }
        if (const ats::result<> end = append_stdin(questions, argument); !end) return ats::pass_on(end);
    }
    if (!questions.empty()) return questions;
    return ats::fail(ats::error_kind::invalid, "stdin has no " + argument + ": write one on each line");
}

} // namespace cli

#include "console/journal.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace console
{

namespace
{

// The manager names the journal's stream by device and inode. A redirected stderr is another one.
bool is_stderr_the_journal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

} // namespace

std::string with_priority(priority priority, const std::string& text)
{
    if (!is_stderr_the_journal()) return text;
    const std::string mark = "<" + std::to_string(static_cast<int>(priority)) + ">";
    std::string lines = mark;
    for (size_t i = 0; i < text.size(); ++i) {
        lines += text[i];
        if (text[i] == '\n' && i + 1 < text.size()) lines += mark;
    }
    return lines;
}

} // namespace console

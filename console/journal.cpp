#include "console/journal.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "console/journal-entry.h"
#include "console/line-limit.h"
#include "host/world/printable.h"

namespace console
{

namespace
{

// The manager names the journal's stream by device and inode. A redirected stderr has other numbers.
bool is_stderr_the_journal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

std::string priority_text(const notice& notice)
{
    return std::to_string(static_cast<int>(notice.priority));
}

// Returns `text` with "<N>" before each of its lines. The journal reads it as the line's priority.
std::string with_priority(const std::string& text, const std::string& priority)
{
    const std::string mark = "<" + priority + ">";
    std::string lines = mark;
    for (size_t i = 0; i < text.size(); ++i) {
        lines += text[i];
        if (text[i] == '\n' && i + 1 < text.size()) lines += mark;
    }
    return lines;
}

std::string text_of(const notice& notice)
{
    return "ats: " + world::printable_lines(notice.text);
}

} // namespace

std::vector<std::string> journal_fields(const notice& notice)
{
    std::vector<std::string> fields = {"MESSAGE=" + text_of(notice), "PRIORITY=" + priority_text(notice),
                                       "SYSLOG_IDENTIFIER=ats", "ATS_PART=" + notice.part};
    const auto add = [&](const char* name, const std::string& value) {
        if (!value.empty()) fields.push_back(name + ("=" + world::printable(value)));
    };
    add("ATS_HOST", notice.host);
    add("ATS_HCA", notice.hca);
    add("ATS_PORT", notice.port == 0 ? "" : std::to_string(notice.port));
    add("ATS_MODULE", notice.module);
    add("ATS_TRACE_LEVEL", notice.trace_level == notice::no_trace_level ? "" : std::to_string(notice.trace_level));
    return fields;
}

namespace
{

uint64_t now_ms()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

} // namespace

void print(const notice& notice)
{
    const bool is_journal = is_stderr_the_journal();
    if (is_journal && send_journal_entry(journal_fields(notice))) return;
    const std::string text = text_of(notice);
    std::fprintf(stderr, "%s\n", is_journal ? with_priority(text, priority_text(notice)).c_str() : text.c_str());
}

void print_limited(const notice& notice)
{
    static std::mutex mutex; // guards the limit
    static line_limit limit("");
    std::optional<std::vector<console::notice>> earlier;
    {
        const std::lock_guard lock(mutex);
        earlier = limit.admit(now_ms(), console::notice().part);
    }
    if (!earlier) return;
    for (const console::notice& each : *earlier) print(each);
    print(notice);
}

bool has_journal_fields()
{
    return can_send_journal_entries() && is_stderr_the_journal();
}

} // namespace console

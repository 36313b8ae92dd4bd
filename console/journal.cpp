#include "console/journal.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "console/journal-entry.h"
#include "console/line-limit.h"
#include "console/line-writer.h"
#include "host/world/printable.h"

namespace console
{

namespace
{

// systemd sets JOURNAL_STREAM to the device and inode of the stream to the journal. A redirected stderr has other
// numbers.
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

// Returns `text` with "<N>" before each of its lines. The journal reads "<N>" as the priority of the line.
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

// Null before start_line_writer(). Never deleted: the destructor waits until every line is written, and at the end of
// the program the reader of stderr may have stopped reading.
std::atomic<line_writer*> writer{nullptr};

uint64_t now_ms()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// Writes the whole text; waits while the file cannot accept more. Returns false after a write error. Does not use
// stdio: a thread that waits in stdio holds the lock of the stream, so all other users of the stream wait, too.
bool write_text(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t length = ::write(file, text.data(), text.size());
        if (length > 0) text.remove_prefix(static_cast<size_t>(length));
        if (length >= 0 || errno == EINTR) continue;
        if (errno != EAGAIN) return false;
        pollfd ready = {file, POLLOUT, 0}; // EAGAIN: another program has made the file non-blocking
        poll(&ready, 1, -1);
    }
    return true;
}

void write(const notice& notice)
{
    const bool is_journal = is_stderr_the_journal();
    if (is_journal && send_journal_entry(journal_fields(notice))) return;
    const std::string text = text_of(notice);
    write_text(STDERR_FILENO, (is_journal ? with_priority(text, priority_text(notice)) : text) + "\n");
}

void remark_on_left_out_lines(uint64_t lines)
{
    write({.priority = priority::warning,
           .text = std::to_string(lines) + (lines == 1 ? " line was" : " lines were") + " left out here, because " +
                   (is_stderr_the_journal() ? "the journal accepted no more" : "stderr was not read")});
}

void write_or_add(std::function<void()> write)
{
    if (line_writer* const thread = writer)
        thread->add(std::move(write));
    else
        write();
}

} // namespace

void print(const notice& notice)
{
    write_or_add([notice] { write(notice); });
    finish_lines();
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
    for (const console::notice& each : *earlier) write_or_add([each] { write(each); });
    write_or_add([notice] { write(notice); });
}

bool print_output(const std::string& line)
{
    const auto is_written = std::make_shared<std::atomic<bool>>(true);
    write_or_add([line, is_written] { *is_written = write_text(STDOUT_FILENO, line + "\n"); });
    finish_lines();
    return *is_written;
}

void start_line_writer()
{
    writer = std::make_unique<line_writer>(remark_on_left_out_lines).release();
}

void finish_lines()
{
    constexpr std::chrono::seconds limit(1);
    if (line_writer* const thread = writer) thread->wait_written(limit);
}

bool has_journal_fields()
{
    return can_send_journal_entries() && is_stderr_the_journal();
}

} // namespace console

// Prints lines for the administrator on stderr. If stderr is systemd's journal, a line becomes an entry with fields,
// such as ATS_HOST. docs/operations.md lists the fields. Other programs rely on their names.
#pragma once

#include <string>
#include <vector>

namespace console
{

// The values are the priorities of syslog(3).
enum class priority { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };

// A line, and the host, HCA, port and module that it is about. A member that does not apply keeps its default.
struct notice {
    console::priority priority = console::priority::notice;
    std::string text = {};        // may have several lines and unprintable bytes
    std::string part = "service"; // the part of the service that prints the line; the value of ATS_PART
    std::string host = {};        // the name of the host in the configuration
    std::string hca = {};         // the name of an HCA of the host
    int port = 0;                 // the number of a port of the HCA
    std::string module = {};      // the module that logged the line
    int trace_level = no_trace_level;

    static constexpr int no_trace_level = -1;
};

// Returns the fields of the line's journal entry, in the form NAME=VALUE.
std::vector<std::string> journal_fields(const notice& notice);

// Starts a thread that writes all later lines. print() and print_limited() then do not hang if the journal or the
// reader of stderr hangs. Programs that run for long call start_line_writer() once. The thread ends with the program.
// Throws exec::shortage if the thread cannot be created.
void start_line_writer();

// Prints the line on stderr as "ats: TEXT". If stderr is systemd's journal, the line becomes an entry with fields; a
// build without libsystemd gives the journal only the priority (sd-daemon(3)). Waits until the line is written. After
// start_line_writer() it waits for at most a second. Any thread.
void print(const notice& notice);

// Prints the line like print(), within the limit of line-limit.h. Lines beyond the limit are only counted; before the
// next line that print_limited() prints, it prints a warning with their number. After start_line_writer(), does not
// wait. Any thread.
void print_limited(const notice& notice);

// Prints the line on stdout, and waits like print(). Returns false if the write has failed. If the line is still not
// written after a second, returns true. Any thread.
bool print_output(const std::string& line);

// Waits until all lines are written, for at most a second. Does nothing before start_line_writer(). Any thread.
void finish_lines();

// Returns true if print() makes journal entries with fields.
bool has_journal_fields();

} // namespace console

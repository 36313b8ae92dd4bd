// Lines for the administrator. A terminal shows them unchanged; systemd's journal gets fields, too. docs/operations.md
// lists the fields, which are a contract.
#pragma once

#include <string>
#include <vector>

namespace console
{

// The numbers of syslog(3).
enum class priority { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };

// A line and its subject. A member keeps its default if it does not apply.
struct notice {
    console::priority priority = console::priority::notice;
    std::string text = {};        // untrusted; may have several lines
    std::string part = "service"; // a part of the service: the value of ATS_PART
    std::string host = {};        // its configured name
    std::string hca = {};         // name of an HCA of the host
    int port = 0;                 // a port of the HCA
    std::string module = {};      // the module of the host that traced the line
    int trace_level = no_trace_level;

    static constexpr int no_trace_level = -1;
};

// The fields of the line's journal entry, in the form NAME=VALUE.
std::vector<std::string> journal_fields(const notice& notice);

// Lets a thread write all lines from now on. print() and print_limited() then do not hang when the journal or the
// reader of stderr hangs. Call it once, in a program that runs for long. The thread ends with the program. Throws a
// shortage if the thread cannot be created.
void start_line_writer();

// Prints the line on stderr as "ats: TEXT". If stderr is systemd's journal, the line becomes an entry with fields. A
// build without libsystemd only adds the priority (sd-daemon(3)). Any thread. Waits until the line is written; after
// start_line_writer() for at most a second.
void print(const notice& notice);

// Does the same within the limit of line-limit.h. Lines beyond the limit are only counted. A warning before the next
// printed line tells their number. After start_line_writer() it does not wait.
void print_limited(const notice& notice);

// Prints the line on stdout, with the same waiting as print(). Returns false if it could not be written.
bool print_output(const std::string& line);

// Waits until the lines of print_limited() are written, for at most a second.
void finish_lines();

// Returns true if print() makes entries with fields.
bool has_journal_fields();

} // namespace console

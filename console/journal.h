// Lines for the administrator: as they are on a terminal, with fields in systemd's journal. docs/operations.md lists
// the fields, which are a contract.
#pragma once

#include <string>
#include <vector>

namespace console
{

// As syslog(3) has them.
enum class priority { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };

// A line, and what it is about: "" and the numbers that are given here if it is about nothing of the kind.
struct notice {
    console::priority priority = console::priority::notice;
    std::string text = {};        // untrusted; may have several lines
    std::string part = "service"; // of the service: the value of ATS_PART
    std::string host = {};        // its configured name
    std::string hca = {};         // its name on its host
    int port = 0;                 // of the HCA
    std::string module = {};      // of the host, which traced the line
    int trace_level = no_trace_level;

    static constexpr int no_trace_level = -1;
};

// The fields of the line's entry in the journal, as NAME=VALUE.
std::vector<std::string> journal_fields(const notice& notice);

// Prints the line on stderr, as "ats: TEXT". If stderr is systemd's journal, the line becomes an entry with fields; in
// a build without libsystemd it gets its priority only (sd-daemon(3)). Any thread. May wait for the journal.
void print(const notice& notice);

// The same, but no more lines than line_limit admits. Lines beyond are counted, and the next line says how many.
void print_limited(const notice& notice);

// True if print() makes entries with fields.
bool has_journal_fields();

} // namespace console

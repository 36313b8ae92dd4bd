// Fits the status into the window of a terminal.
#include <algorithm>
#include <sstream>

#include <fmt/core.h>

#include "cli/commands/show.h"
#include "console/table.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

using console::cell_text;

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// Returns a table with a row for each port.
console::table_rows port_rows(const json& answer)
{
    console::table_rows rows = {{"HOST", "HCA", "PORT", "LINK", "STATE", "LID", "ADDRESS", "SENT", "RECEIVED"}};
    for (const json& host : answer.at("hosts"))
        for (const json& hca : host.at("hcas"))
            for (json port : hca.at("ports")) {
                port["host"] = host.at("name");
                port["hca"] = hca.at("name");
                rows.push_back(console::make_row(
                    port, {"host", "hca", "port", "link", "state", "lid", "address", "sent", "received"}));
            }
    return rows;
}

std::string registration_of(const json& host)
{
    for (const json& registration : host.at("registrations"))
        if (!registration.at("registered").get<bool>()) return "NO: " + cell_text(registration.at("reason"));
    return host.at("registrations").empty() ? "-" : "yes";
}

// Returns a table with a row for each host.
console::table_rows host_rows(const json& answer)
{
    console::table_rows rows = {{"HOST", "CACHED", "HITS", "MISSES", "REQUESTS", "RETRIES", "TIME-OUTS", "REGISTERED"}};
    for (const json& host : answer.at("hosts")) {
        const json ibat = host.value("ibat", json::object());
        json columns = ibat.value("counters", json::object());
        columns["host"] = host.at("name");
        columns["cached"] = ibat.value("cache", json()).size();
        console::table_row row =
            console::make_row(columns, {"host", "cached", "hits", "misses", "requests", "retries", "timeouts"});
        row.push_back(registration_of(host));
        rows.push_back(std::move(row));
    }
    return rows;
}

bool fits(const std::vector<std::string>& lines, size_t columns, size_t line_limit)
{
    return lines.size() <= line_limit &&
           std::ranges::all_of(lines, [&](const std::string& line) { return world::columns_of(line) <= columns; });
}

std::vector<std::string> whole_status(const json& answer)
{
    std::ostringstream output;
    show_status(output, answer);
    return lines_of(output.str());
}

std::vector<std::string> short_status(const json& answer)
{
    return lines_of(console::format_table(port_rows(answer), 0) + "\n" + console::format_table(host_rows(answer), 0));
}

} // namespace

std::string fit_status(const json& answer, size_t columns, size_t line_limit)
{
    std::vector<std::string> lines = whole_status(answer);
    if (!fits(lines, columns, line_limit)) lines = short_status(answer);
    if (lines.size() > line_limit) {
        const size_t hidden_count = lines.size() - line_limit + 1;
        lines.resize(line_limit - 1);
        lines.push_back(fmt::format("... and {} lines more: --host NAME shows one host", hidden_count));
    }
    std::string picture;
    for (const std::string& line : lines) {
        if (!picture.empty()) picture += '\n';
        picture += world::cut_to_columns(line, columns);
    }
    return picture;
}

} // namespace cli

// The status in a terminal's window.
#include <algorithm>
#include <sstream>

#include "cli/client/show.h"
#include "console/table.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

using table = std::vector<std::vector<std::string>>;

std::string text_of(const json& value)
{
    return value.is_string() ? world::printable(value.get<std::string>()) : value.is_null() ? "-" : value.dump();
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// A line for each port, and its registration when it is the active one's.
table ports_of(const json& answer)
{
    table rows = {{"HOST", "HCA", "PORT", "LINK", "STATE", "LID", "ADDRESS", "SENT", "RECEIVED"}};
    for (const json& host : answer.at("hosts"))
        for (const json& hca : host.at("hcas"))
            for (const json& port : hca.at("ports")) {
                std::vector<std::string> row = {text_of(host.at("name")), text_of(hca.at("name"))};
                for (const char* key : {"port", "link", "state", "lid", "address", "sent", "received"})
                    row.push_back(text_of(port.value(key, json())));
                rows.push_back(std::move(row));
            }
    return rows;
}

std::string registration_of(const json& host)
{
    for (const json& registration : host.at("registrations"))
        if (!registration.at("registered").get<bool>()) return "NO: " + text_of(registration.at("reason"));
    return host.at("registrations").empty() ? "-" : "yes";
}

table hosts_of(const json& answer)
{
    table rows = {{"HOST", "CACHED", "HITS", "MISSES", "REQUESTS", "RETRIES", "TIME-OUTS", "REGISTERED"}};
    for (const json& host : answer.at("hosts")) {
        const json ibat = host.value("ibat", json::object());
        const json counters = ibat.value("counters", json::object());
        std::vector<std::string> row = {text_of(host.at("name")), std::to_string(ibat.value("cache", json()).size())};
        for (const char* key : {"hits", "misses", "requests", "retries", "timeouts"})
            row.push_back(text_of(counters.value(key, json())));
        row.push_back(registration_of(host));
        rows.push_back(std::move(row));
    }
    return rows;
}

bool fits(const std::vector<std::string>& lines, size_t columns, size_t most_lines)
{
    return lines.size() <= most_lines &&
           std::ranges::all_of(lines, [&](const std::string& line) { return world::columns_of(line) <= columns; });
}

} // namespace

std::string fit_status(const json& answer, size_t columns, size_t most_lines)
{
    std::ostringstream whole;
    show_status(whole, answer);
    std::vector<std::string> lines = lines_of(whole.str());
    if (!fits(lines, columns, most_lines))
        lines =
            lines_of(console::format_table(ports_of(answer), 0) + "\n" + console::format_table(hosts_of(answer), 0));
    if (lines.size() > most_lines) {
        const size_t hidden = lines.size() - most_lines + 1;
        lines.resize(most_lines - 1);
        lines.push_back("... and " + std::to_string(hidden) + " lines more: --host NAME shows one host");
    }
    std::string picture;
    for (const std::string& line : lines)
        picture += (picture.empty() ? "" : "\n") + world::cut_to_columns(line, columns);
    return picture;
}

} // namespace cli

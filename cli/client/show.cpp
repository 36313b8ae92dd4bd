#include "cli/client/show.h"

#include <cstdio>

#include "console/table.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

std::string cell(const json& value)
{
    return value.is_string() ? world::printable(value.get<std::string>()) : value.is_null() ? "-" : value.dump();
}

// The values of `keys` in every element of `elements`, under `headings`.
std::vector<std::vector<std::string>> rows_of(const json& elements, const std::vector<std::string>& headings,
                                              const std::vector<const char*>& keys)
{
    std::vector<std::vector<std::string>> rows = {headings};
    for (const json& element : elements) {
        std::vector<std::string> row;
        for (const char* key : keys) row.push_back(cell(element.value(key, json())));
        rows.push_back(std::move(row));
    }
    return rows;
}

// As in "12 s", "3 min" or "2 h 10 min".
std::string duration_of(uint64_t seconds)
{
    const uint64_t minutes = seconds / 60;
    if (minutes == 0) return std::to_string(seconds) + " s";
    if (minutes < 60) return std::to_string(minutes) + " min";
    return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
}

// Says if the SA holds the host's record. Names the HCA if the host has several.
void show_registration(std::ostream& to, const json& registration, bool is_only_one)
{
    const bool is_registered = registration.at("registered").get<bool>();
    to << "  ";
    if (!is_only_one) to << cell(registration.at("hca")) << ": ";
    if (!is_registered) {
        to << "NOT registered: " << cell(registration.at("reason"));
        const json& unanswered = registration.at("unanswered_seconds");
        if (unanswered.is_number()) to << " (for " << duration_of(unanswered) << ")";
        to << '\n';
        if (registration.at("name").is_null()) return;
        to << "    last sent: ";
    } else {
        to << "registered: ";
    }
    to << cell(registration.at("name")) << ", " << cell(registration.at("address")) << ", P_Key "
       << cell(registration.at("p_key")) << ", SM LID " << cell(registration.at("sm_lid"));
    const json& confirmed = registration.at("confirmed_seconds");
    if (confirmed.is_number())
        to << (is_registered ? "; confirmed " : "; the SA last confirmed it ") << duration_of(confirmed) << " ago";
    to << '\n';
}

void show_hca(std::ostream& to, const json& hca)
{
    to << "  " << cell(hca.at("name")) << ", ";
    if (hca.at("active_port").is_null())
        to << "no active port\n";
    else
        to << "active port " << cell(hca.at("active_port")) << '\n';
    to << console::format_table(rows_of(hca.at("ports"),
                                        {"PORT", "LINK", "STATE", "LID", "GID", "ADDRESS", "SENT", "RECEIVED"},
                                        {"port", "link", "state", "lid", "gid", "address", "sent", "received"}),
                                4);
}

void show_verification(std::ostream& to, const json& verification)
{
    if (verification.at("period") == 0)
        to << "  registration is not checked\n";
    else
        to << "  registration is checked every " << cell(verification.at("period")) << " s, up to "
           << cell(verification.at("skew")) << " % later\n";
}

void show_ibat(std::ostream& to, const json& ibat)
{
    const json& counters = ibat.at("counters");
    to << "  IBAT: " << counters.at("hits") << " hits, " << counters.at("misses") << " misses, "
       << counters.at("requests") << " requests, " << counters.at("retries") << " retries, " << counters.at("timeouts")
       << " time-outs\n";
    if (ibat.at("cache").empty()) return;
    to << console::format_table(rows_of(ibat.at("cache"), {"ADDRESS", "GID", "KIND", "AGE (s)", "EXPIRES IN (s)"},
                                        {"address", "gid", "kind", "age_seconds", "expires_seconds"}),
                                4);
}

std::string duration(uint64_t microseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f ms", static_cast<double>(microseconds) / 1000);
    return text;
}

// The result of a verification, in words; "" if none was asked for.
std::string verdict(const json& answer)
{
    if (!answer.contains("verified")) return "";
    if (answer.at("verified").is_null()) return "; could not be verified: " + cell(answer.at("unverified_reason"));
    if (answer.at("verified").get<bool>()) return "; the SA agrees";
    const std::string cached = answer.at("cached").is_null() ? "no owner" : cell(answer.at("cached"));
    return "; the cache was WRONG: " + cached +
           (answer.at("corrected").get<bool>() ? "; it is corrected" : "; it keeps that as the host's own");
}

} // namespace

void show_status(std::ostream& to, const json& answer)
{
    to << (answer.at("fabric") == "umad" ? "A real" : "An embedded") << " fabric, up for "
       << duration_of(answer.at("uptime_seconds")) << ".\n";
    for (const json& host : answer.at("hosts")) {
        to << cell(host.at("name")) << ": " << cell(host.at("version")) << ", trace level " << cell(host.at("trace"))
           << '\n';
        for (const json& registration : host.at("registrations"))
            show_registration(to, registration, host.at("registrations").size() == 1);
        for (const json& hca : host.at("hcas")) show_hca(to, hca);
        if (host.contains("verification")) show_verification(to, host.at("verification"));
        if (host.contains("ibat")) show_ibat(to, host.at("ibat"));
    }
}

void show_resolution(std::ostream& to, const json& answer)
{
    to << cell(answer.at("asked")) << "  ";
    if (answer.at("status") == "ok")
        to << cell(answer.at("found"));
    else
        to << cell(answer.at("status")) << ": " << cell(answer.at("reason"));
    to << "  (";
    if (answer.contains("host_name")) to << cell(answer.at("address")) << ", ";
    if (!answer.at("source").is_null()) to << "from the " << cell(answer.at("source")) << ", ";
    to << duration(answer.at("microseconds")) << verdict(answer) << ")" << std::endl;
}

void show_records(std::ostream& to, const json& answer, bool is_selection)
{
    if (answer.at("records").empty())
        to << (is_selection ? "The SA holds no such ServiceRecord.\n" : "The SA holds no ServiceRecord.\n");
    else
        to << console::format_table(rows_of(answer.at("records"), {"GID", "P_KEY", "ADDRESS", "HOST NAME", "LEASE"},
                                            {"gid", "p_key", "address", "host_name", "lease"}),
                                    0);
    for (const json& remark : answer.at("remarks")) to << "Note: " << cell(remark) << ".\n";
    if (answer.at("silent").get<bool>()) to << "It is silent ('ats sa silence off' ends that).\n";
    if (!answer.at("status").is_null())
        to << "It answers everything with status " << cell(answer.at("status")) << " ('ats sa status 0' ends that).\n";
}

void show_output(std::ostream& to, const json& answer)
{
    to << world::printable_lines(answer.at("output").get<std::string>());
}

void show_done(std::ostream& to, const json& answer)
{
    to << cell(answer.at("done")) << '\n';
    if (answer.contains("warning")) to << "Warning: " << cell(answer.at("warning")) << ".\n";
}

} // namespace cli

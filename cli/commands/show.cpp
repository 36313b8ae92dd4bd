#include "cli/commands/show.h"

#include <fmt/core.h>

#include "console/record-answer.h"
#include "console/table.h"
#include "host/world/printable.h"

namespace cli
{

namespace
{

constexpr size_t table_indent = 4;

std::string field(const json& object, const char* key)
{
    return console::cell_text(object.at(key));
}

// Returns, for example, "12 s", "3 min" or "2 h 10 min".
std::string duration_in_words(uint64_t seconds)
{
    const uint64_t minutes = seconds / 60;
    if (minutes == 0) return fmt::format("{} s", seconds);
    if (minutes < 60) return fmt::format("{} min", minutes);
    return fmt::format("{} h {} min", minutes / 60, minutes % 60);
}

std::string record_text(const json& registration)
{
    return fmt::format("{}, {}, P_Key {}, SM LID {}", field(registration, "name"), field(registration, "address"),
                       field(registration, "p_key"), field(registration, "sm_lid"));
}

// Returns `introduction` and the time since the SA confirmed the record. Returns "" if the SA has not confirmed it.
std::string confirmation_text(const json& registration, const char* introduction)
{
    const json& seconds = registration.at("confirmed_seconds");
    return seconds.is_number() ? fmt::format("; {} {} ago", introduction, duration_in_words(seconds)) : "";
}

void show_missing_registration(std::ostream& output, const json& registration)
{
    output << "NOT registered: " << field(registration, "reason");
    const json& seconds = registration.at("unanswered_seconds");
    if (seconds.is_number()) output << fmt::format(" (for {})", duration_in_words(seconds));
    output << '\n';
    if (registration.at("name").is_null()) return;
    output << "    last sent: " << record_text(registration)
           << confirmation_text(registration, "the SA last confirmed it") << '\n';
}

// Prints whether the SA has the record of one HCA of a host. Names the HCA if the host has several HCAs.
void show_registration(std::ostream& output, const json& registration, bool is_only_one)
{
    output << "  ";
    if (!is_only_one) output << field(registration, "hca") << ": ";
    if (registration.at("registered").get<bool>())
        output << "registered: " << record_text(registration) << confirmation_text(registration, "confirmed") << '\n';
    else
        show_missing_registration(output, registration);
}

void show_hca(std::ostream& output, const json& hca)
{
    const bool has_active_port = !hca.at("active_port").is_null();
    const std::string active_port = has_active_port ? "active port " + field(hca, "active_port") : "no active port";
    output << fmt::format("  {}, {}\n", field(hca, "name"), active_port);
    const console::table_rows ports =
        console::make_rows(hca.at("ports"), {"PORT", "LINK", "STATE", "LID", "GID", "ADDRESS", "SENT", "RECEIVED"},
                           {"port", "link", "state", "lid", "gid", "address", "sent", "received"});
    output << console::format_table(ports, table_indent);
}

void show_verification(std::ostream& output, const json& verification)
{
    if (verification.at("period") == 0)
        output << "  registration is not checked\n";
    else
        output << fmt::format("  registration is checked every {} s, up to {} % later\n", field(verification, "period"),
                              field(verification, "skew"));
}

void show_ibat(std::ostream& output, const json& ibat)
{
    const json& counters = ibat.at("counters");
    output << fmt::format("  IBAT: {} hits, {} misses, {} requests, {} retries, {} time-outs\n",
                          field(counters, "hits"), field(counters, "misses"), field(counters, "requests"),
                          field(counters, "retries"), field(counters, "timeouts"));
    if (ibat.at("cache").empty()) return;
    const console::table_rows cache =
        console::make_rows(ibat.at("cache"), {"ADDRESS", "GID", "KIND", "AGE (s)", "EXPIRES IN (s)"},
                           {"address", "gid", "kind", "age_seconds", "expires_seconds"});
    output << console::format_table(cache, table_indent);
}

void show_host(std::ostream& output, const json& host)
{
    output << fmt::format("{}: {}, trace level {}\n", field(host, "name"), field(host, "version"),
                          field(host, "trace"));
    const json& registrations = host.at("registrations");
    for (const json& registration : registrations) show_registration(output, registration, registrations.size() == 1);
    for (const json& hca : host.at("hcas")) show_hca(output, hca);
    if (host.contains("verification")) show_verification(output, host.at("verification"));
    if (host.contains("ibat")) show_ibat(output, host.at("ibat"));
}

// Describes the result of a verification of the cache. Returns "" if the answer has no such result.
std::string verification_text(const json& answer)
{
    if (!answer.contains("verified")) return "";
    if (answer.at("verified").is_null()) return "; could not be verified: " + field(answer, "unverified_reason");
    if (answer.at("verified").get<bool>()) return "; the SA agrees";
    const bool is_corrected = answer.at("corrected").get<bool>();
    return fmt::format("; the cache was WRONG: {}; {}",
                       answer.at("cached").is_null() ? "no owner" : field(answer, "cached"),
                       is_corrected ? "it is corrected" : "it keeps that entry, which is the host's own");
}

void show_remarks(std::ostream& output, const json& answer)
{
    for (const json& remark : answer.at("remarks")) output << fmt::format("Note: {}.\n", console::cell_text(remark));
}

void show_records(std::ostream& output, const json& answer, const char* text_without_records)
{
    if (answer.at("records").empty())
        output << text_without_records;
    else
        output << console::format_table(console::record_rows(answer.at("records")), 0);
    show_remarks(output, answer);
    if (answer.at("silent").get<bool>()) output << "It is silent ('ats sa silence off' ends that).\n";
    if (!answer.at("status").is_null())
        output << fmt::format("It answers everything with status {} ('ats sa status 0' ends that).\n",
                              field(answer, "status"));
}

} // namespace

void show_status(std::ostream& output, const json& answer)
{
    output << fmt::format("{} fabric, up for {}.\n", answer.at("fabric") == "umad" ? "A real" : "An embedded",
                          duration_in_words(answer.at("uptime_seconds")));
    for (const json& host : answer.at("hosts")) show_host(output, host);
}

void show_resolution(std::ostream& output, const json& answer)
{
    const bool is_ok = answer.at("status") == "ok";
    output << field(answer, "asked") << "  "
           << (is_ok ? field(answer, "found") : field(answer, "status") + ": " + field(answer, "reason")) << "  (";
    if (answer.contains("host_name")) output << field(answer, "address") << ", ";
    if (!answer.at("source").is_null()) output << "from the " << field(answer, "source") << ", ";
    const double milliseconds = answer.at("microseconds").get<double>() / 1000;
    output << fmt::format("{:.2f} ms{})", milliseconds, verification_text(answer)) << std::endl;
}

void show_path(std::ostream& output, const json& answer)
{
    output << field(answer, "asked") << "  ";
    if (answer.at("status") == "ok")
        output << fmt::format("{} LID {} from LID {}, SL {}, P_Key {}, MTU {}, {} Gbit/s", field(answer, "gid"),
                              field(answer, "dlid"), field(answer, "slid"), field(answer, "sl"), field(answer, "p_key"),
                              field(answer, "mtu_bytes"), field(answer, "rate_gbps"));
    else
        output << field(answer, "status") << ": " << field(answer, "reason");
    output << "  (";
    if (!answer.at("source").is_null()) output << "from the " << field(answer, "source") << ", ";
    output << fmt::format("{:.2f} ms)", answer.at("microseconds").get<double>() / 1000) << std::endl;
}

void show_all_records(std::ostream& output, const json& answer)
{
    show_records(output, answer, "The SA holds no ServiceRecord.\n");
}

void show_selected_records(std::ostream& output, const json& answer)
{
    show_records(output, answer, "The SA holds no such ServiceRecord.\n");
}

void show_removed_records(std::ostream& output, const json& answer)
{
    output << "Removed from the SA:\n" << console::format_table(console::record_rows(answer.at("records")), 0);
    show_remarks(output, answer);
}

void show_output(std::ostream& output, const json& answer)
{
    output << world::printable_lines(answer.at("output").get<std::string>());
}

void show_done(std::ostream& output, const json& answer)
{
    output << field(answer, "done") << '\n';
    if (answer.contains("warning")) output << fmt::format("Warning: {}.\n", field(answer, "warning"));
}

} // namespace cli

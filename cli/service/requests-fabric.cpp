// Requests about the embedded fabric itself: links and the Subnet Administrator.

#include "cli/service/requests-fabric.h"

#include <charconv>

#include "console/failure.h"
#include "console/gids.h"
#include "console/record-answer.h"

namespace cli
{

namespace
{

std::string word_text(uint16_t word)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", word);
    return text;
}

// The SA of a real fabric is asked by the client itself, which may be where this service has no port.
json show_records(running_hosts& hosts)
{
    if (hosts.is_real()) return {{"real", true}};
    json records = json::array();
    for (const embedded::service_record_view& record : hosts.subnet().service_records())
        records.push_back(console::record_answer(record));
    const embedded::fault_switches& faults = hosts.subnet().faults;
    const bool has_status = faults.sa_status_count != 0;
    return {{"records", records},
            {"silent", faults.sa_silent.load()},
            {"status", has_status ? json(word_text(faults.sa_status)) : json()}};
}

json forget(running_hosts& hosts, const std::string& gid)
{
    size_t forgotten = 0;
    if (gid.empty()) {
        forgotten = hosts.subnet().forget_all();
    } else {
        const wire_gid_t wire = to_wire(console::value_or_throw(console::gid_of(gid)));
        forgotten = hosts.subnet().forget(std::to_array(wire.bytes));
    }
    if (forgotten == 0)
        throw console::failure(console::exit_failed,
                               gid.empty() ? "the SA holds no record" : "the SA holds no record of " + gid);
    return done("The SA forgot " + std::to_string(forgotten) + (forgotten == 1 ? " record." : " records."));
}

json answer_with_status(running_hosts& hosts, const std::string& word)
{
    uint16_t status = 0;
    const bool hexadecimal = word.starts_with("0x");
    const char* const begin = word.data() + (hexadecimal ? 2 : 0);
    const char* const end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(begin, end, status, hexadecimal ? 16 : 10);
    if (error != std::errc() || stopped != end)
        throw console::failure(console::exit_usage,
                               console::quote(word) + " is no status word: write a number up to 65535, as in 0x0300");
    hosts.subnet().faults.answer_with(status, status == 0 ? 0 : embedded::fault_switches::every);
    return done(status == 0 ? "The SA answers as it should."
                            : "The SA answers everything with status " + word_text(status) + ".");
}

// Of two words, whether it is the first. Throws a failure when it is neither.
bool is_first_of(const std::string& first, const std::string& second, const std::string& word)
{
    if (word != first && word != second)
        throw console::failure(console::exit_usage,
                               console::quote(word) + " is neither '" + first + "' nor '" + second + "'");
    return word == first;
}

} // namespace

json answer_link(running_hosts& hosts, const json& request)
{
    embedded::subnet& fabric = hosts.subnet();
    world::host& host = hosts.named(request.value("host", ""));
    std::string hca = request.value("hca", "");
    if (hca.empty()) hca = host.plan().hcas.front().name;
    const int port = request.value("port", 1);
    const bool up = is_first_of("up", "down", request.at("direction"));
    const ats::result<> changed =
        up ? fabric.link_up(host.name(), hca, port) : fabric.link_down(host.name(), hca, port);
    if (!changed) throw console::failure(console::exit_usage, changed.error().text);
    return done(host.name() + " " + hca + " port " + std::to_string(port) + (up ? " is up." : " is down."));
}

json answer_sa(running_hosts& hosts, const json& request)
{
    const std::string action = request.at("action");
    if (action == "show") return show_records(hosts);
    if (action == "forget") return forget(hosts, request.value("gid", ""));
    if (action == "status") return answer_with_status(hosts, request.at("word"));
    if (action == "silence") {
        const bool on = is_first_of("on", "off", request.at("state"));
        hosts.subnet().faults.sa_silent = on;
        return done(on ? "The SA is silent." : "The SA answers.");
    }
    throw console::failure(console::exit_usage, "this service does not know the SA action " + console::quote(action));
}

} // namespace cli

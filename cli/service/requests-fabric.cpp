// Answers requests about the embedded fabric: its links and its Subnet Administrator.

#include <charconv>

#include "cli/service/requests.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/record-answer.h"

namespace cli
{

namespace
{

using ats::error_kind;

// Returns the records and the faults of the embedded SA. Returns {"real": true} on a real fabric. The client then asks
// the SA itself, and can choose a port that this service does not use.
json show_records(running_hosts& hosts)
{
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return {{"real", true}};
    json records = json::array();
    for (const embedded::service_record_view& record : (*subnet)->service_records())
        records.push_back(console::record_answer(record));
    const embedded::fault_switches& faults = (*subnet)->faults;
    const bool has_status = faults.sa_status_count != 0;
    return {{"records", records},
            {"silent", faults.sa_silent.load()},
            {"status", has_status ? json(console::format_word(faults.sa_status)) : json()}};
}

// Deletes the records of a GID from the SA. If `gid` is "", deletes all records. Fails if there is no record to delete.
ats::result<json> forget(embedded::subnet& subnet, const std::string& gid)
{
    size_t count = 0;
    if (gid.empty()) {
        count = subnet.forget_all();
    } else {
        const ats::result<kq_gid_t> host_order = console::gid_of(gid);
        if (!host_order) return ats::pass_on(host_order);
        count = subnet.forget(std::to_array(to_wire(*host_order).bytes));
    }
    if (count == 0) return ats::fail(gid.empty() ? "the SA holds no record" : "the SA holds no record of " + gid);
    return done("The SA forgot " + std::to_string(count) + (count == 1 ? " record." : " records."));
}

// Reads the status of a MAD: a decimal number, or a hexadecimal number that begins with "0x".
ats::result<uint16_t> status_of(const std::string& word)
{
    uint16_t status = 0;
    const bool is_hexadecimal = word.starts_with("0x");
    const char* const begin = word.data() + (is_hexadecimal ? 2 : 0);
    const char* const end = word.data() + word.size();
    const auto [number_end, error] = std::from_chars(begin, end, status, is_hexadecimal ? 16 : 10);
    if (error == std::errc() && number_end == end) return status;
    return ats::fail(error_kind::invalid,
                     console::quote(word) + " is not a status word: write a number up to 65535, for example 0x0300");
}

// Makes the SA answer every request with the status `word`. Status 0 makes the SA answer normally again.
ats::result<json> answer_with_status(embedded::subnet& subnet, const std::string& word)
{
    const ats::result<uint16_t> status = status_of(word);
    if (!status) return ats::pass_on(status);
    const bool is_normal = *status == 0;
    subnet.faults.answer_with(*status, is_normal ? 0 : embedded::fault_switches::every);
    return done(is_normal ? "The SA answers as it should."
                          : "The SA answers everything with status " + console::format_word(*status) + ".");
}

// Returns true if `word` is the first of the two words, and false if it is the second.
ats::result<bool> is_first_of(const std::string& first, const std::string& second, const std::string& word)
{
    if (word == first) return true;
    if (word == second) return false;
    return ats::fail(error_kind::invalid, console::quote(word) + " is neither '" + first + "' nor '" + second + "'");
}

ats::result<json> silence(embedded::subnet& subnet, const std::string& state)
{
    const ats::result<bool> is_silent = is_first_of("on", "off", state);
    if (!is_silent) return ats::pass_on(is_silent);
    subnet.faults.sa_silent = *is_silent;
    return done(*is_silent ? "The SA is silent." : "The SA answers.");
}

} // namespace

ats::result<json> answer_link(running_hosts& hosts, const json& request)
{
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return ats::pass_on(subnet);
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    const std::string& name = (*host)->name();
    std::string hca = request.value("hca", "");
    if (hca.empty()) hca = (*host)->plan().hcas.front().name;
    constexpr unsigned last_port = 254; // a port number is a byte, and 255 is reserved
    const ats::result<int> port = integer_of(request, "port", 1, last_port, 1);
    if (!port) return ats::pass_on(port);
    const ats::result<bool> is_up = is_first_of("up", "down", request.at("direction"));
    if (!is_up) return ats::pass_on(is_up);
    const ats::result<> result = *is_up ? (*subnet)->link_up(name, hca, *port) : (*subnet)->link_down(name, hca, *port);
    if (!result) return ats::fail(error_kind::invalid, result.error().text);
    return done(name + " " + hca + " port " + std::to_string(*port) + (*is_up ? " is up." : " is down."));
}

ats::result<json> answer_sa(running_hosts& hosts, const json& request)
{
    const std::string action = request.at("action");
    if (action == "show") return show_records(hosts);
    if (action != "forget" && action != "status" && action != "silence")
        return ats::fail(error_kind::invalid, "this service does not know the SA action " + console::quote(action));
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return ats::pass_on(subnet);
    if (action == "forget") return forget(**subnet, request.value("gid", ""));
    if (action == "status") return answer_with_status(**subnet, request.at("word"));
    return silence(**subnet, request.at("state"));
}

} // namespace cli

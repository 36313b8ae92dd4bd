#include "cli/client/sa-show.h"
#include "console/failure.h"
#include "console/table.h"

#include <iostream>

#include "cli/client/client.h"
#include "cli/client/show.h"
#include "console/gids.h"
#include "console/record-answer.h"
#include "host/fabric/embedded/service-records.h"
#include "host/fabric/umad/record-list.h"
#include "host/fabric/umad/umad.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

struct show_options {
    std::string address;
    std::string gid;
    std::string name;
    std::string hca; // a real one: the service is not asked
    int port = 0;
    bool is_direct = false;
};

umad::record_filter filter_of(const show_options& options)
{
    umad::record_filter filter;
    if (!options.address.empty()) {
        filter.address = world::parse_ipv4(options.address);
        if (!filter.address)
            throw console::failure(console::exit_usage,
                                   console::quote(options.address) + " is no IPv4 address like 10.0.0.1");
    }
    if (!options.gid.empty()) {
        filter.gid = std::to_array(to_wire(console::value_or_throw(console::gid_of(options.gid))).bytes);
    }
    if (!options.name.empty()) filter.host_name = options.name;
    return filter;
}

json ask_real_sa(const show_options& options, const umad::record_filter& filter)
{
    const umad::opened_sa_client opened = umad::open_sa_client(options.hca, options.port);
    if (!opened.client) throw console::failure(console::exit_failed, opened.why);
    const umad::record_list list = umad::list_records(*opened.client, filter);
    if (!list.why.empty()) throw console::failure(console::exit_failed, list.why);
    json records = json::array();
    for (const ib_service_record_v2_t& record : list.records)
        records.push_back(console::record_answer(embedded::view_of(record)));
    console::add_gid6(records);
    return {{"records", records}, {"remarks", list.remarks}, {"silent", false}, {"status", nullptr}};
}

// Keeps the records that the options ask for, of all that an embedded SA told.
void select(json& answer, const umad::record_filter& filter)
{
    const auto differs = [&](const json& record) {
        return (filter.address && record.at("address") != world::format_ipv4(*filter.address)) ||
               (filter.gid && record.at("gid") != embedded::text_of(*filter.gid)) ||
               (filter.host_name && record.at("host_name") != *filter.host_name);
    };
    json& records = answer.at("records");
    records.erase(std::remove_if(records.begin(), records.end(), differs), records.end());
}

bool has_real_ports()
{
    return umad::list_hcas().why.empty();
}

json find_records(const client_options& common, const show_options& options)
{
    const umad::record_filter filter = filter_of(options);
    if (options.is_direct || !options.hca.empty()) return ask_real_sa(options, filter);
    json answer;
    try {
        answer = client(common).ask({{"request", "sa"}, {"action", "show"}});
    } catch (const console::failure& unreachable) {
        if (unreachable.code != console::exit_unreachable || !has_real_ports()) throw;
        return ask_real_sa(options, filter);
    }
    throw_if_refused(answer);
    if (answer.value("real", false)) return ask_real_sa(options, filter);
    select(answer, filter);
    answer["remarks"] = json::array(); // what only a real one gives rise to
    return answer;
}

} // namespace

json real_records_of(const std::string& host_name)
{
    return ask_real_sa({}, {.host_name = host_name}).at("records");
}

void add_sa_show(CLI::App& sa, int& exit_code)
{
    CLI::App* command = sa.add_subcommand("show", "List the ATS records that the SA holds");
    auto options = std::make_shared<show_options>();
    command->add_option("--address", options->address, "Only those of this IPv4 address")->option_text("ADDRESS");
    command->add_option("--gid", options->gid, "Only those of this GID")->option_text("GID");
    command->add_option("--name", options->name, "Only those of this host name")->option_text("NAME");
    command
        ->add_flag("--real", options->is_direct, "Ask the SA of this machine's real fabric, whatever service runs here")
        ->option_text(" ");
    auto* hca = command->add_option("--hca", options->hca, "The same, through this HCA")->option_text("NAME");
    command->add_option("--port", options->port, "... and this port (default: the first active one)")
        ->needs(hca)
        ->option_text("N");
    auto common = add_client_options(*command, no_host);
    add_gid_format_option(*command, *common);
    command->callback([=, &exit_code] {
        const json answer = find_records(*common, *options);
        if (answer.at("records").empty()) exit_code = console::exit_failed;
        if (common->as_json)
            console::show_json(std::cout, answer);
        else
            show_records(std::cout, in_wanted_notation(answer, *common),
                         !(options->address + options->gid + options->name).empty());
    });
}

} // namespace cli

#include "cli/commands/sa-show.h"

#include <iostream>

#include "cli/commands/real-sa.h"
#include "cli/commands/service-client.h"
#include "cli/commands/show.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/identity.h"
#include "console/record-list.h"
#include "host/fabric/embedded/subnet-views.h"
#include "host/fabric/umad/umad.h"
#include "host/world/text.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

struct show_options {
    std::string address;
    std::string gid;
    std::string name;
    real_sa_options sa;
};

bool has_filter(const show_options& options)
{
    return !options.address.empty() || !options.gid.empty() || !options.name.empty();
}

ats::result<console::record_filter> filter_of(const show_options& options)
{
    console::record_filter filter;
    if (!options.address.empty()) {
        const ats::result<uint32_t> address = console::address_of(options.address);
        if (!address) return ats::pass_on(address);
        filter.address = *address;
    }
    if (!options.gid.empty()) {
        const ats::result<kq_gid_t> gid = console::gid_of(options.gid);
        if (!gid) return ats::pass_on(gid);
        filter.gid = std::to_array(to_wire(*gid).bytes);
    }
    if (options.name.size() > records::host_name_size)
        return ats::fail(ats::error_kind::invalid,
                         "a host name has at most " + std::to_string(records::host_name_size) + " bytes");
    if (!options.name.empty()) filter.host_name = options.name;
    return filter;
}

ats::result<json> ask_real_sa(const show_options& options, const console::record_filter& filter)
{
    const auto sa = open_real_sa(options.sa);
    if (!sa) return ats::pass_on(sa);
    const auto list = list_at_real_sa(**sa, filter);
    if (!list) return ats::pass_on(list);
    json answer = answer_about(*list);
    answer.update({{"silent", false}, {"status", nullptr}});
    return answer;
}

// Removes from `answer` the records that the filter excludes. An answer of the service always has all records of its
// SA.
void select(json& answer, const console::record_filter& filter)
{
    const auto is_excluded = [&](const json& record) {
        return (filter.address && record.at("address") != world::format_ipv4(*filter.address)) ||
               (filter.gid && record.at("gid") != embedded::text_of(*filter.gid)) ||
               (filter.host_name && record.at("host_name") != *filter.host_name);
    };
    json& records = answer.at("records");
    records.erase(std::remove_if(records.begin(), records.end(), is_excluded), records.end());
}

bool has_real_ports()
{
    return umad::list_hcas().has_value();
}

ats::result<json> find_records(const client_options& common, const show_options& options)
{
    const ats::result<console::record_filter> filter = filter_of(options);
    if (!filter) return ats::pass_on(filter);
    if (options.sa.is_chosen()) return ask_real_sa(options, *filter);
    ats::result<json> answer = ask_once(common, {{"request", "sa"}, {"action", "show"}});
    const bool is_unreachable = !answer && answer.error().kind == ats::error_kind::unreachable;
    if (is_unreachable && has_real_ports()) return ask_real_sa(options, *filter);
    if (!answer) return answer;
    if (answer->value("real", false)) return ask_real_sa(options, *filter);
    select(*answer, *filter);
    (*answer)["remarks"] = json::array(); // the embedded SA always returns all records, so there are no remarks
    return answer;
}

ats::result<int> run_sa_show(const client_options& common, const show_options& options)
{
    const ats::result<json> answer = find_records(common, options);
    if (!answer) return ats::pass_on(answer);
    show_answer(common, *answer, has_filter(options) ? show_selected_records : show_all_records);
    return answer->at("records").empty() ? console::exit_failed : console::exit_ok;
}

} // namespace

void add_sa_show(CLI::App& sa, ats::result<int>& outcome)
{
    CLI::App* command = sa.add_subcommand("show", "List the ATS records that the SA holds");
    auto options = std::make_shared<show_options>();
    command->add_option("--address", options->address, "Only those of this IPv4 address")->option_text("ADDRESS");
    command->add_option("--gid", options->gid, "Only those of this GID")->option_text("GID");
    command->add_option("--name", options->name, "Only those of this host name")->option_text("NAME");
    add_real_sa_options(*command, options->sa);
    auto common = add_client_options(*command, no_host);
    add_gid_format_option(*command, *common);
    set_client_action(*command, outcome, [=] { return run_sa_show(*common, *options); });
}

} // namespace cli

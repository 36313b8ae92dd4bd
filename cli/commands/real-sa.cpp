#include "cli/commands/real-sa.h"

#include "console/gids.h"
#include "console/record-answer.h"
#include "host/fabric/embedded/subnet-views.h"

namespace cli
{

void add_real_sa_options(CLI::App& command, real_sa_options& options)
{
    command
        .add_flag("--real", options.is_real,
                  "Ask the SA of this machine's real fabric, even if another service runs here")
        ->option_text(" ");
    auto* hca =
        command.add_option("--hca", options.hca, "Ask the SA of the real fabric through this HCA")->option_text("NAME");
    command.add_option("--port", options.port, "With --hca: ask through this port (default: the first active one)")
        ->needs(hca)
        ->option_text("N");
}

ats::result<std::unique_ptr<umad::sa_client>> open_real_sa(const real_sa_options& options)
{
    auto sa = umad::open_sa_client(options.hca, options.port);
    if (sa) return sa;
    const bool has_no_active_port = sa.error().kind == ats::error_kind::not_found;
    return ats::fail(sa.error().text + (has_no_active_port ? "; 'ats check' says more" : ""));
}

ats::result<console::record_list> list_at_real_sa(umad::sa_client& sa, const console::record_filter& filter)
{
    auto list = console::list_records(sa, filter);
    if (!list) return ats::fail(list.error().text);
    return list;
}

nlohmann::json answer_about(const console::record_list& list)
{
    nlohmann::json records = nlohmann::json::array();
    for (const ib_service_record_v2_t& record : list.records)
        records.push_back(console::record_answer(embedded::view_of(record)));
    console::add_gid6(records);
    return {{"records", records}, {"remarks", list.remarks}};
}

} // namespace cli

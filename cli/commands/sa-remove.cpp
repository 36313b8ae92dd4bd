#include "cli/commands/sa-remove.h"

#include <algorithm>

#include "cli/commands/real-sa.h"
#include "cli/commands/service-client.h"
#include "cli/commands/show.h"
#include "console/errors.h"
#include "console/gids.h"
#include "console/record-list.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

struct remove_options {
    std::string gid;
    real_sa_options sa;
};

// Makes a SubnAdmDelete of the record. The mask selects ServiceID, ServiceGID and ServiceName, but not the P_Key:
// OpenSM compares the P_Key in any case, and refuses a mask with the P_Key if the port of the GID has left the fabric.
sa_mad_v2_t deletion_of(const ib_service_record_v2_t& record)
{
    constexpr uint64_t mask = uint64_t{1} << SR_COMPONENT_SERVICE_ID | uint64_t{1} << SR_COMPONENT_SERVICE_GID |
                              uint64_t{1} << SR_COMPONENT_SERVICE_NAME;
    return umad::make_sa_request(MAD_METHOD_DELETE, SA_ATTR_SERVICE_RECORD, mask, &record, sizeof record);
}

// Deletes the records, and checks that the SA has none of this GID afterwards. Fails if it has, or if the SA refuses a
// request or does not answer.
ats::result<> delete_at_sa(umad::sa_client& sa, const std::vector<ib_service_record_v2_t>& records,
                           const console::record_filter& gid)
{
    std::vector<sa_mad_v2_t> requests;
    std::ranges::transform(records, std::back_inserter(requests), deletion_of);
    const auto answers = sa.ask(requests);
    if (!answers) return ats::pass_on(answers);
    for (const std::optional<sa_mad_v2_t>& answer : *answers) {
        if (!answer) return ats::fail(sa.silence().text);
        const uint16_t status = from_wire(answer->hdr.u.ns.status.raw16);
        // If the answer to a Delete was lost, the client has repeated it, and the SA has no such record any more.
        if (status != 0 && status != status_word(SA_STATUS_NO_RECORDS))
            return ats::fail("the SA refuses to remove the record: status " + records::status_text(status));
    }
    const auto rest = list_at_real_sa(sa, gid);
    if (!rest) return ats::pass_on(rest);
    if (!rest->records.empty())
        return ats::fail("the SA still holds a record of this GID: does a running host register it again?");
    return {};
}

// Removes the records of the GID. Returns {"records", "remarks"}: the removed records, and lines for the user.
ats::result<json> remove_at_real_sa(const remove_options& options, const kq_gid_t& gid)
{
    const auto sa = open_real_sa(options.sa);
    if (!sa) return ats::pass_on(sa);
    const console::record_filter filter = {.gid = std::to_array(to_wire(gid).bytes)};
    const auto list = list_at_real_sa(**sa, filter);
    if (!list) return ats::pass_on(list);
    if (list->records.empty()) return ats::fail("the SA holds no record of " + options.gid);
    if (const auto result = delete_at_sa(**sa, list->records, filter); !result) return ats::fail(result.error().text);
    return answer_about(*list);
}

// Returns true if a host of the service on a real fabric is registered with the GID.
bool is_registered_by_service(const json& status, const kq_gid_t& gid)
{
    if (status.value("fabric", "") != "umad") return false;
    for (const json& host : status.at("hosts"))
        for (const json& registration : host.at("registrations"))
            if (registration.value("gid", json()) == records::gid_text(gid)) return true;
    return false;
}

ats::result<int> run_sa_remove(const client_options& common, const remove_options& options)
{
    const ats::result<kq_gid_t> gid = console::gid_of(options.gid);
    if (!gid) return ats::pass_on(gid);
    const ats::result<json> status = ask_once(common, {{"request", "status"}});
    if (!options.sa.is_chosen()) {
        if (status && status->value("fabric", "") == "embedded")
            return ats::fail(ats::error_kind::invalid, "the service runs on an embedded fabric: use 'ats sa forget " +
                                                           options.gid +
                                                           "', or --real for the SA of this machine's real fabric");
        if (!status && status.error().kind != ats::error_kind::unreachable) return ats::pass_on(status);
    }
    ats::result<json> answer = remove_at_real_sa(options, *gid);
    if (!answer) return ats::pass_on(answer);
    if (status && is_registered_by_service(*status, *gid))
        (*answer)["remarks"].push_back("the service on this machine has registered this GID. It will register it again "
                                       "at its next check, unless you stop it");
    show_answer(common, *answer, show_removed_records);
    return console::exit_ok;
}

} // namespace

void add_sa_remove(CLI::App& sa, ats::result<int>& outcome)
{
    CLI::App* command = sa.add_subcommand("remove", "Remove a GID's records from the SA of a real fabric");
    auto options = std::make_shared<remove_options>();
    command->add_option("GID", options->gid, "The ServiceGID, as 'ats sa show' prints it")
        ->required()
        ->option_text(" ");
    add_real_sa_options(*command, options->sa);
    auto common = add_client_options(*command, no_host);
    add_gid_format_option(*command, *common);
    set_client_action(*command, outcome, [=] { return run_sa_remove(*common, *options); });
}

} // namespace cli

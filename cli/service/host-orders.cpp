#include "cli/service/host-orders.h"

#include <cstring>

#include "cli/service/registration.h"
#include "console/control-commands.h"
#include "console/host-plans.h"
#include "host/exec/print-capture.h"
#include "host/stack/hca-events.h"
#include "host/stack/registry.h"
#include "kernel/errno.h"

namespace cli
{

namespace
{

tl::unexpected<ats::error> not_loaded(const kernel::machine& machine)
{
    return ats::fail("ats is not loaded on " + machine.name());
}

// Calls `function`, a function of ats that changes the name or the address of the host. The module ats stays loaded
// during the call. Returns false if ats could not send the new record on an HCA. It then has stored the new value for
// this HCA and the earlier ones, and has skipped the later ones. Fails if ats is not loaded.
template <class argument_t>
ats::result<bool> set_identity(kernel::machine& machine, const char* function, argument_t argument)
{
    bool is_loaded = false;
    int32_t status = 0;
    machine.enter(function, [&] {
        const kernel::held_symbol symbol(machine.modules, "ats", function);
        is_loaded = static_cast<bool>(symbol);
        if (is_loaded) status = symbol.as<int32_t (*)(argument_t)>()(argument);
    });
    if (!is_loaded) return not_loaded(machine);
    return status == 0;
}

// Executes `order`, which changes the registered record. Then waits as `completion` says. `order` returns false if an
// HCA with an active port could not send the record. `is_new_record` recognizes the new record.
ats::result<> change_record(world::host& host, completion completion,
                            const confirmation::is_new_record_t& is_new_record,
                            const std::function<ats::result<bool>()>& order)
{
    constexpr const char* see_the_log = "'ats log --level 1' says why; with several HCAs, repeat the command then";
    if (completion == completion::sent) {
        const ats::result<bool> order_result = order();
        if (!order_result) return ats::pass_on(order_result);
        if (*order_result) return {};
        return ats::fail(std::string("stored, but not registered on every HCA: ") + see_the_log);
    }
    confirmation confirmation(host, is_new_record);
    const ats::result<bool> order_result = order();
    if (!order_result) return ats::pass_on(order_result);
    const ats::result<> confirmed = confirmation.wait();
    if (confirmed && *order_result) return {};
    return ats::fail("stored, not confirmed by the SA: " + (confirmed ? see_the_log : confirmed.error().text));
}

} // namespace

ats::result<std::string> write_control(world::host& host, const std::string& command)
{
    kernel::machine& machine = host.machine();
    int written = 0;
    std::string output;
    machine.enter("control", [&] {
        exec::print_capture capture(exec::print_capture::also_log);
        written = machine.proc.write(console::control_file, command + "\n");
        output = capture.text();
    });
    if (written == -EK_NOENT) return not_loaded(machine);
    if (written < 0)
        return ats::fail("ats on " + machine.name() + " did not accept the command: " + std::strerror(-written));
    return output;
}

void set_trace_level(world::host& host, int level)
{
    kernel::machine& machine = host.machine();
    machine.enter("trace",
                  [&] { machine.get<stack::registry>().set(console::registry_key, console::trace_level_name, level); });
}

void set_spread(world::host& host, int seconds)
{
    constexpr uint64_t ticks_per_second = 1000;
    host.machine().get<stack::link_up_spread>().ticks = static_cast<uint64_t>(seconds) * ticks_per_second;
}

ats::result<> set_verification(world::host& host, const verification& verification)
{
    const ats::result<std::string> output =
        write_control(host, "sa_verify_period " + std::to_string(verification.period_seconds) + " " +
                                std::to_string(verification.skew_percent));
    if (!output) return ats::pass_on(output);
    if (console::is_complaint(*output))
        return ats::fail(host.name() + " did not accept its verification period: " + *output);
    return {};
}

ats::result<> set_name(world::host& host, const std::string& name, completion completion)
{
    return change_record(
        host, completion, [&](const records::host_record& record) { return record.host_name == name; },
        [&] { return set_identity(host.machine(), "ats_sa_set_hostname", name.c_str()); });
}

ats::result<> set_address(world::host& host, uint32_t ip, completion completion)
{
    return change_record(
        host, completion, [&](const records::host_record& record) { return record.address == ip; },
        [&] { return set_identity(host.machine(), "ats_sa_set_ip_addrs", ip); });
}

} // namespace cli

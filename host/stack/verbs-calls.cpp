// Implements verbs.h with the calling machine's verbs service.
#include <algorithm>
#include <bit>

#include "host/stack/verbs-service.h"
#include "kernel/printk.h"

using kernel::current_machine_may_sleep;

namespace
{

constexpr int shared_use = 0;
constexpr uint32_t largest_message = 0x80000000; // bytes (IBA 9.2)

// Reads the attributes of a port for the verbs call named `call`. Returns kq_return_ok, or the error that the verbs
// call must return.
kq_return_t read_port(const char* call, kq_hca_h_t hca, kq_port_num_t port, fabric::port_attributes& attributes)
{
    kernel::machine& home = current_machine_may_sleep(call);
    if (home.faults.should_fail(call)) return kq_return_err_general;
    const stack::hca_events* events = home.get<stack::verbs>().find(hca);
    if (!events) return kq_return_err_invalid_hca;
    if (port < 1 || port > events->hca().port_count()) return kq_return_err_invalid_port;
    attributes = events->hca().read_port(port);
    return kq_return_ok;
}

// Converts and copies entries of the table, at most `*count`. Sets `*count` to the number of copied entries.
template <class source_t, class entry_t, class convert_t>
kq_return_t store(const std::vector<source_t>& table, int* count, entry_t* entries, const convert_t& convert)
{
    if (!count || *count < 0 || !entries) return kq_return_err_general;
    *count = std::min(*count, static_cast<int>(table.size()));
    std::transform(table.begin(), table.begin() + *count, entries, convert);
    return kq_return_ok;
}

} // namespace

int kq_list_hcas(kq_hca_name* names, int capacity)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__) || !names || capacity < 0) return kq_return_err_general;
    const int hca_count = static_cast<int>(home.hcas().size());
    const int count = std::min(capacity, hca_count);
    if (count < hca_count && count > 0 && home.get<stack::verbs>().is_first_short_list())
        printk("verbs - this host has %d hcas, only the first %d are used\n", hca_count, count);
    std::transform(home.hcas().begin(), home.hcas().begin() + count, names,
                   [](const fabric::hca* each) { return stack::name_for_modules(*each); });
    return count;
}

kq_return_t kq_hca_open(const kq_hca_name* name, int flags, kq_hca_h_t* hca)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__) || !name || flags != shared_use || !hca) return kq_return_err_general;
    kq_hca_h_t handle = home.get<stack::verbs>().open(name->name, __builtin_return_address(0));
    if (!handle) return kq_return_err_invalid_hca;
    *hca = handle;
    return kq_return_ok;
}

kq_return_t kq_hca_close(kq_hca_h_t hca)
{
    return current_machine_may_sleep(__func__).get<stack::verbs>().close(hca);
}

kq_return_t kq_hca_query(kq_hca_h_t hca, kq_hca_attrib_t* attributes)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__) || !attributes) return kq_return_err_general;
    const stack::hca_events* events = home.get<stack::verbs>().find(hca);
    if (!events) return kq_return_err_invalid_hca;
    attributes->port_num = static_cast<uint8_t>(events->hca().port_count());
    return kq_return_ok;
}

kq_return_t kq_port_query(kq_hca_h_t hca, kq_port_num_t port, kq_port_attrib_t* attributes)
{
    fabric::port_attributes port_now;
    const kq_return_t status = read_port(__func__, hca, port, port_now);
    if (status != kq_return_ok) return status;
    if (!attributes) return kq_return_err_general;
    *attributes = {
        .port_num = port,
        .port_mtu = static_cast<kq_mtu_t>(port_now.mtu),
        .port_message_size = largest_message,
        .port_state = static_cast<kq_port_state_t>(port_now.state),
        .port_base_lid = port_now.lid,
        .port_lmc = port_now.lmc,
        .port_sgid_table_size = static_cast<uint32_t>(port_now.gids.size()),
        .port_parti_table_size = static_cast<uint32_t>(port_now.p_keys.size()),
        .port_max_vl_num = port_now.max_vls,
        .port_bad_p_key_count = port_now.bad_p_keys,
        .port_bad_q_key_count = port_now.bad_q_keys,
        .port_sma_address_info = {.port_num = port, .sm_lid = port_now.sm_lid, .service_level = port_now.sm_sl},
        .port_capability_support = port_now.capability_mask,
    };
    return kq_return_ok;
}

kq_return_t kq_get_port_gid_tbl(kq_hca_h_t hca, kq_port_num_t port, int* count, kq_gid_t* gids)
{
    fabric::port_attributes port_now;
    const kq_return_t status = read_port(__func__, hca, port, port_now);
    if (status != kq_return_ok) return status;
    return store(port_now.gids, count, gids,
                 [](const fabric::gid_bytes& gid) { return from_wire(std::bit_cast<wire_gid_t>(gid)); });
}

kq_return_t kq_get_port_partition_tbl(kq_hca_h_t hca, kq_port_num_t port, int* count, kq_p_key_t* p_keys)
{
    fabric::port_attributes port_now;
    const kq_return_t status = read_port(__func__, hca, port, port_now);
    if (status != kq_return_ok) return status;
    return store(port_now.p_keys, count, p_keys, [](uint16_t p_key) { return p_key; });
}

kq_return_t kq_set_sleepable_async_event_cb(kq_hca_h_t hca, const kq_request_event_record_t* request,
                                            kq_async_event_fn_t callback)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__) || !request || !callback) return kq_return_err_general;
    if (request->req_event_type != kq_async_even_all) return kq_return_err_general;
    stack::hca_events* events = home.get<stack::verbs>().find(hca);
    if (!events) return kq_return_err_invalid_hca;
    return events->subscribe(hca, callback) ? kq_return_ok : kq_return_err_busy;
}

kq_return_t kq_dell_sleepable_async_event_cb(kq_hca_h_t hca, kq_async_event_fn_t callback)
{
    stack::hca_events* events = current_machine_may_sleep(__func__).get<stack::verbs>().find(hca);
    if (!events) return kq_return_err_invalid_hca;
    return events->unsubscribe(hca, callback) ? kq_return_ok : kq_return_err_general;
}

// The module IBAT: its parameters, the functions that it publishes, its entry function and its exit function.
#include <iterator>

#include "host/peers/ibat/path-resolver.h"
#include "host/peers/ibat/resolver.h"
#include "host/peers/publications.h"
#include "kernel/errno.h"
#include "kernel/module.h"
#include "kernel/printk.h"

namespace
{

int32_t lifetime_seconds = 600;
int32_t negative_seconds = 2;
int32_t retry_ticks = 500;
int32_t retries = 3; // number of attempts, including the first one
int32_t capacity = 4096;
int32_t path_seconds = 300;

const module_parameter_t parameters[] = {
    {"ibat_lifetime_seconds", module_parameter_int, &lifetime_seconds, "Seconds for which a learned address is used"},
    {"ibat_negative_seconds", module_parameter_int, &negative_seconds,
     "Seconds for which a negative answer is used; 0: not at all"},
    {"ibat_retry_ticks", module_parameter_int, &retry_ticks, "Ticks that an attempt waits for its answer"},
    {"ibat_retries", module_parameter_int, &retries, "Attempts for an address in all"},
    {"ibat_capacity", module_parameter_int, &capacity, "Addresses in the cache; the oldest is dropped for a new one"},
    {"ibat_path_seconds", module_parameter_int, &path_seconds, "Seconds for which a path is used"},
};

struct range_t {
    int32_t least;
    int32_t most;
};
const range_t ranges[] = {{1, 365 * 24 * 3600}, {0, 3600}, {1, 3'600'000}, {1, 1000}, {1, 1 << 24}, {1, 24 * 3600}};
static_assert(std::size(ranges) == std::size(parameters));

ibat::resolver service;
ibat::path_resolver paths;

ibat_stat_t attach(get_if_info_fn_t, send_arp_data_fn_t send_arp, void* context, void** handle)
{
    return service.attach(send_arp, context, handle);
}

ibat_stat_t detach(void* handle)
{
    return service.detach(handle);
}

// Returns the port on which an answer arrived; 0 means unknown.
uint32_t port_of(const ibat_arp_data_t& arp_data)
{
    return arp_data.mask & IBAT_MASK_LOCAL_PORT_NUM ? arp_data.local_port_num : 0;
}

// Passes an answer to the resolver of addresses, and the port on which the answer arrived to the path resolver. If the
// address no longer belongs to its earlier GID, the host with this GID may be gone. Therefore this function drops the
// path to the earlier GID.
ibat_stat_t process_arp_data(ibat_arp_data_t* arp_data)
{
    if (!paths.is_open()) {
        paths.note_provider_port(port_of(*arp_data));
        return service.take_reply(*arp_data);
    }
    ibat_arp_data_t earlier{};
    const bool was_known = service.peek(arp_data->src_ip, &earlier) == ibat_stat_ok;
    const ibat_stat_t status = service.take_reply(*arp_data);
    paths.note_provider_port(port_of(*arp_data));
    if (was_known && status == ibat_stat_ok && earlier.gid != arp_data->gid) paths.forget(earlier.gid);
    return status;
}

ibat_stat_t seq_cache_lookup(kq_gid_t* gid, ibat_arp_data_t* arp_data)
{
    return service.look_up_gid(*gid, arp_data);
}

ibat_stat_t get_ib_data(uint32_t ip, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return service.resolve(ip, arp_data, user_cb, user_context);
}

ibat_stat_t refresh(uint32_t ip, ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return service.refresh(ip, user_cb, user_context);
}

int32_t cancel(ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return service.cancel(user_cb, user_context);
}

ibat_stat_t peek(uint32_t ip, ibat_arp_data_t* arp_data)
{
    return service.peek(ip, arp_data);
}

ibat_stat_t cached(uint32_t ip, ibat_arp_data_t* arp_data)
{
    return service.cached(ip, arp_data);
}

int32_t cache_list(ibat_cache_entry_t* entries, int32_t capacity)
{
    return service.list(entries, capacity);
}

void counters(ibat_counters_t* counters)
{
    *counters = service.counters();
}

// Also drops all paths.
int32_t flush()
{
    paths.flush();
    return service.flush();
}

int32_t forget(uint32_t ip, const kq_gid_t* gid)
{
    ibat_arp_data_t mapping{};
    if (gid)
        paths.forget(*gid);
    else if (paths.is_open() && service.peek(ip, &mapping) == ibat_stat_ok)
        paths.forget(mapping.gid);
    return service.forget(ip, gid);
}

ibat_stat_t get_path(const kq_gid_t* gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t user_cb,
                     void* user_context)
{
    return gid ? paths.get(*gid, arp_data, user_cb, user_context) : ibat_stat_error;
}

ibat_stat_t refresh_path(const kq_gid_t* gid, ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return gid ? paths.refresh(*gid, user_cb, user_context) : ibat_stat_error;
}

ibat_stat_t cached_path(const kq_gid_t* gid, ibat_arp_data_t* arp_data)
{
    return gid ? paths.cached(*gid, arp_data) : ibat_stat_error;
}

int32_t cancel_path(ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return paths.cancel(user_cb, user_context);
}

void path_counters(ibat_path_counters_t* counters)
{
    *counters = paths.counters();
}

const publication publications[] = {
    make_publication<ibat_attach_fn_t>("ibat_attach_fn", attach),
    make_publication<ibat_detach_fn_t>("ibat_detach_fn", detach),
    make_publication<ibat_process_arp_data_fn_t>("ibat_process_arp_data_fn", process_arp_data),
    make_publication<ibat_seq_cache_lookup_fn_t>("ibat_seq_cache_lookup_fn", seq_cache_lookup),
    make_publication<ibat_get_ib_data_fn_t>("ibat_get_ib_data_fn", get_ib_data),
    make_publication<ibat_refresh_fn_t>("ibat_refresh_fn", refresh),
    make_publication<ibat_cancel_fn_t>("ibat_cancel_fn", cancel),
    make_publication<ibat_peek_fn_t>("ibat_peek_fn", peek),
    make_publication<ibat_cached_fn_t>("ibat_cached_fn", cached),
    make_publication<ibat_cache_list_fn_t>("ibat_cache_list_fn", cache_list),
    make_publication<ibat_counters_fn_t>("ibat_counters_fn", counters),
    make_publication<ibat_flush_fn_t>("ibat_flush_fn", flush),
    make_publication<ibat_forget_fn_t>("ibat_forget_fn", forget),
    make_publication<ibat_get_path_fn_t>("ibat_get_path_fn", get_path),
    make_publication<ibat_refresh_path_fn_t>("ibat_refresh_path_fn", refresh_path),
    make_publication<ibat_cached_path_fn_t>("ibat_cached_path_fn", cached_path),
    make_publication<ibat_cancel_path_fn_t>("ibat_cancel_path_fn", cancel_path),
    make_publication<ibat_path_counters_fn_t>("ibat_path_counters_fn", path_counters),
};

bool parameters_are_in_range()
{
    for (size_t i = 0; i < std::size(parameters); ++i) {
        const int32_t value = *static_cast<const int32_t*>(parameters[i].value);
        if (value >= ranges[i].least && value <= ranges[i].most) continue;
        printk("ibat: %s=%d is out of range, choose %d to %d\n", parameters[i].name, value, ranges[i].least,
               ranges[i].most);
        return false;
    }
    return true;
}

int load()
{
    if (!parameters_are_in_range()) return -EK_INVAL;
    ibat::resolver_limits limits{};
    limits.cache.capacity = capacity;
    limits.cache.lifetime_ticks = static_cast<unsigned long>(lifetime_seconds) * HZ;
    limits.cache.negative_ticks = static_cast<unsigned long>(negative_seconds) * HZ;
    limits.attempts = retries;
    limits.retry_ticks = static_cast<unsigned long>(retry_ticks);
    paths.prepare({.capacity = capacity,
                   .lifetime_ticks = static_cast<unsigned long>(path_seconds) * HZ,
                   .attempts = retries,
                   .retry_ticks = static_cast<unsigned long>(retry_ticks)},
                  [](kq_event_record_st event) { paths.take_event(event); });
    if (!service.open(limits)) return -EK_NOMEM;
    publish(publications);
    return 0;
}

void unload()
{
    withdraw(publications);
    paths.close();
    service.close();
}

} // namespace

kernel_module_t this_module = {
    .name = "ibat",
    .description = "IP-over-InfiniBand address cache",
    .init = load,
    .exit = unload,
    .parameters = parameters,
    .parameter_count = static_cast<int32_t>(std::size(parameters)),
    .logger_level = nullptr,
};

// The module's frame: the functions it publishes, loading and unloading.
#include "host/peers/ucm/reverse-resolver.h"
#include "kernel/errno.h"
#include "kernel/module.h"

namespace
{

ucm::reverse_resolver service;

void reply(ibat_stat_t status, ibat_arp_data_t* arp_data, void* user_context)
{
    service.answered(status, arp_data, user_context);
}

ucm_stat_t rarp_attach(send_rarp_fn_t send_rarp, void* provider_context, void** handle)
{
    return service.attach(send_rarp, provider_context, handle);
}

ucm_stat_t rarp_detach(void* handle)
{
    return service.detach(handle);
}

ibat_stat_t get_ip(const kq_gid_t* gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t user_cb,
                   void* user_context)
{
    return gid ? service.get_ip(*gid, arp_data, user_cb, user_context) : ibat_stat_error;
}

int32_t cancel(ibat_get_ib_data_reply_fn_t user_cb, void* user_context)
{
    return service.cancel(user_cb, user_context);
}

void counters(ucm_counters_t* counters)
{
    *counters = service.counters();
}

template <class function_t>
const void* published(function_t function)
{
    return reinterpret_cast<const void*>(function);
}

const struct {
    const char* name;
    const void* function;
} publications[] = {
    {"ucm_rarp_attach_fn", published<ucm_rarp_attach_fn_t>(rarp_attach)},
    {"ucm_rarp_detach_fn", published<ucm_rarp_detach_fn_t>(rarp_detach)},
    {"ucm_get_ip_fn", published<ucm_get_ip_fn_t>(get_ip)},
    {"ucm_cancel_fn", published<ucm_cancel_fn_t>(cancel)},
    {"ucm_counters_fn", published<ucm_counters_fn_t>(counters)},
};

int load()
{
    if (!service.open(reply)) return -EK_NOMEM;
    for (const auto& each : publications) inter_module_register(each.name, THIS_MODULE, each.function);
    return 0;
}

void unload()
{
    for (const auto& each : publications) inter_module_unregister(each.name);
    service.close();
}

} // namespace

kernel_module_t this_module = {
    .name = "ucm",
    .description = "InfiniBand connection manager: reverse address resolution",
    .init = load,
    .exit = unload,
    .parameters = nullptr,
    .parameter_count = 0,
    .logger_level = nullptr,
};

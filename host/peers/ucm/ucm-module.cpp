// The module UCM: the functions that it publishes, its entry function and its exit function.
#include "host/peers/publications.h"
#include "host/peers/ucm/reverse-resolver.h"
#include "kernel/errno.h"
#include "kernel/module.h"

namespace
{

ucm::reverse_resolver service;

void reply(ibat_stat_t status, ibat_arp_data_t* arp_data, void* user_context)
{
    service.take_answer(status, arp_data, user_context);
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

const publication publications[] = {
    make_publication<ucm_rarp_attach_fn_t>("ucm_rarp_attach_fn", rarp_attach),
    make_publication<ucm_rarp_detach_fn_t>("ucm_rarp_detach_fn", rarp_detach),
    make_publication<ucm_get_ip_fn_t>("ucm_get_ip_fn", get_ip),
    make_publication<ucm_cancel_fn_t>("ucm_cancel_fn", cancel),
    make_publication<ucm_counters_fn_t>("ucm_counters_fn", counters),
};

int load()
{
    if (!service.open(reply)) return -EK_NOMEM;
    publish(publications);
    return 0;
}

void unload()
{
    withdraw(publications);
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

// Implements gsi.h with the calling machine's GSI service.
#include "host/stack/gsi-service.h"
#include "kernel/errno.h"

using kernel::current_machine;
using kernel::current_machine_may_sleep;
using stack::datagram_pool;
using stack::datagram_record;

namespace
{

constexpr int no_redirection = 0;
constexpr int no_rmpp = 0;

datagram_pool* pool_of(gsi_dtgrm_pool_handle_t handle)
{
    return reinterpret_cast<datagram_pool*>(handle);
}

// Checks the arguments of a registration. Stores a new registration in `*client` and returns 0, or returns a negative
// error number.
int make_client(kernel::machine& home, uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                gsi_completion_fn_t send_callback, gsi_completion_fn_t receive_callback, void* context,
                const gsi_class_handle_t* handle, std::unique_ptr<gsi_class_t>* client)
{
    if (!hca || !send_callback || !receive_callback || !handle) return -EK_INVAL;
    stack::gsi_adapter* adapter = home.get<stack::gsi>().adapter(hca->name);
    if (!adapter) return -EK_NXIO;
    if (port_num < 1 || port_num > adapter->hca().port_count()) return -EK_INVAL;
    client->reset(new gsi_class_t{.adapter = *adapter,
                                  .port = static_cast<uint8_t>(port_num),
                                  .mgt_class = mgt_class,
                                  .class_ver = class_ver,
                                  .send_callback = send_callback,
                                  .receive_callback = receive_callback,
                                  .context = context});
    return 0;
}

} // namespace

int gsi_register_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num, int redirection,
                       int rmpp, gsi_completion_fn_t send_callback, gsi_completion_fn_t receive_callback, void* context,
                       gsi_class_handle_t* handle)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOMEM;
    if (redirection != no_redirection || rmpp != no_rmpp) return -EK_INVAL;
    std::unique_ptr<gsi_class_t> client;
    const int error = make_client(home, mgt_class, class_ver, hca, port_num, send_callback, receive_callback, context,
                                  handle, &client);
    if (error != 0) return error;
    stack::gsi_adapter& adapter = client->adapter;
    return adapter.register_class(std::move(client), handle);
}

int gsi_join_class(uint8_t mgt_class, uint8_t class_ver, const kq_hca_name* hca, int32_t port_num,
                   gsi_completion_fn_t send_callback, gsi_completion_fn_t receive_callback, void* context,
                   gsi_class_handle_t* handle)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOMEM;
    std::unique_ptr<gsi_class_t> client;
    const int error = make_client(home, mgt_class, class_ver, hca, port_num, send_callback, receive_callback, context,
                                  handle, &client);
    if (error != 0) return error;
    stack::gsi_adapter& adapter = client->adapter;
    return adapter.join_class(std::move(client), handle);
}

int gsi_deregister_class(gsi_class_handle_t handle)
{
    kernel::machine& home = current_machine(__func__);
    if (home.faults.should_fail(__func__)) return -EK_BUSY;
    if (!handle) return -EK_INVAL;
    return handle->adapter.deregister(*handle);
}

int gsi_dtgrm_pool_create_named(int32_t size, gsi_dtgrm_pool_handle_t* pool, const char* name)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOMEM;
    if (size < 1 || !pool || !name) return -EK_INVAL;
    datagram_pool* new_pool =
        home.get<stack::gsi>().create_pool(name, static_cast<size_t>(size), __builtin_return_address(0));
    if (!new_pool) return -EK_NOMEM;
    *pool = reinterpret_cast<gsi_dtgrm_pool_handle_t>(new_pool);
    return 0;
}

int gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool)
{
    kernel::machine& home = current_machine_may_sleep(__func__);
    return home.get<stack::gsi>().destroy_pool(pool_of(pool)) ? 0 : -EK_INVAL;
}

int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm)
{
    kernel::machine& home = current_machine(__func__);
    exec::preemption_point();
    if (home.faults.should_fail(__func__)) return -EK_NOMEM;
    if (!pool || !dtgrm) return -EK_INVAL;
    datagram_record* record = pool_of(pool)->take();
    if (!record) return -EK_NOMEM;
    record->note(home.exec().now(), stack::datagram_event::taken);
    *dtgrm = &record->datagram();
    return 0;
}

void gsi_dtgrm_pool_put(gsi_dtgrm_t* dtgrm)
{
    datagram_record& record = datagram_record::record_of(dtgrm, __func__);
    record.pool.put(record);
    exec::preemption_point();
}

int gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm, uint64_t* transaction_id)
{
    kernel::machine& home = current_machine(__func__);
    datagram_record& record = datagram_record::record_of(dtgrm, __func__);
    exec::preemption_point();
    if (home.faults.should_fail(__func__)) return -EK_BUSY;
    if (!handle) return -EK_INVAL;
    return handle->adapter.post(*handle, record, transaction_id);
}

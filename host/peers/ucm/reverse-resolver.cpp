#include "host/peers/ucm/reverse-resolver.h"

namespace ucm
{
namespace
{

constexpr size_t expected_requests = 512;

void* number_to_context(uint64_t id)
{
    return reinterpret_cast<void*>(id);
}

} // namespace

bool reverse_resolver::open(ats_rarp_reply_fn_t reply)
{
    spin_lock_init(&lock_);
    reply_ = reply;
    counters_ = {};
    send_rarp_ = nullptr;
    handle_ = 0;
    detaching_ = false;
    sends_running_ = 0;
    init_waitqueue_head_named(&sends_finished_, "ucm send_rarp");
    list_init(&asked_);
    last_id_ = 0;
    replies_.open(&lock_);
    return by_id_.open(expected_requests);
}

void reverse_resolver::close()
{
    end_attachment();
    replies_.close();
    by_id_.close();
}

ucm_stat_t reverse_resolver::attach(send_rarp_fn_t send_rarp, void* context, void** handle)
{
    if (!send_rarp || !handle) return ucm_stat_error;
    spin_guard guard(&lock_);
    if (send_rarp_) return ucm_stat_error;
    send_rarp_ = send_rarp;
    provider_context_ = context;
    ++handle_;
    *handle = reinterpret_cast<void*>(handle_);
    return ucm_stat_ok;
}

ucm_stat_t reverse_resolver::detach(void* handle)
{
    {
        spin_guard guard(&lock_);
        if (!send_rarp_ || detaching_ || handle != reinterpret_cast<void*>(handle_)) return ucm_stat_error;
        detaching_ = true;
    }
    end_attachment();
    return ucm_stat_ok;
}

// Calls into the provider end first: each then knows for itself whether its request failed or stays to be told here.
void reverse_resolver::end_attachment()
{
    {
        spin_guard guard(&lock_);
        detaching_ = true; // from here on no call into the provider begins
    }
    wait_until(&sends_finished_, &lock_, [&] { return sends_running_ == 0; });
    spin_guard guard(&lock_);
    while (!list_empty(&asked_)) {
        request* left = list_entry(asked_.next, request, asker.link);
        unlink(left);
        replies_.owe(&left->asker, ibat_stat_error, left->asker.answer);
    }
    send_rarp_ = nullptr;
    detaching_ = false;
}

ibat_stat_t reverse_resolver::get_ip(const kq_gid_t& gid, ibat_arp_data_t* arp_data,
                                     ibat_get_ib_data_reply_fn_t callback, void* context)
{
    if (!arp_data || !callback) return ibat_stat_error;
    ibat_arp_data_t query = *arp_data;
    query.mask = IBAT_MASK_GID;
    query.gid = gid;
    auto* asked = static_cast<request*>(kmalloc(sizeof(request), GFP_KERNEL));
    if (!asked) return ibat_stat_error;
    asked->asker.callback = callback;
    asked->asker.context = context;
    asked->asker.answer = {};
    asked->asker.answer.mask = IBAT_MASK_GID;
    asked->asker.answer.gid = gid;
    if (!begin(asked)) {
        kfree(asked);
        return ibat_stat_error;
    }
    const uint64_t id = asked->id;
    ibat_stat_t status = send_rarp_(&query, reply_, number_to_context(id), provider_context_);
    status = end_send(id, status);
    if (status == ibat_stat_ok) *arp_data = query;
    return status;
}

// Registers a request and the call into the provider that is about to be made; false: nobody is attached. The
// attachment then stays as it is until the call has ended.
bool reverse_resolver::begin(request* asked)
{
    spin_guard guard(&lock_);
    if (!send_rarp_ || detaching_) return false;
    asked->id = ++last_id_;
    by_id_.insert(asked);
    list_add_tail(&asked->asker.link, &asked_);
    ++sends_running_;
    ++counters_.requests;
    ++counters_.pending;
    return true;
}

// What the asker is told when the provider has returned `status`. A callback that came first, or a withdrawal, has
// settled the request: then no result may settle it again, whatever the provider says.
ibat_stat_t reverse_resolver::end_send(uint64_t id, ibat_stat_t status)
{
    {
        spin_guard guard(&lock_);
        --sends_running_;
        request* asked = by_id_.find(id);
        if (!asked) {
            status = ibat_stat_pending;
        } else if (status != ibat_stat_pending) {
            ++(status == ibat_stat_ok ? counters_.answered_at_once : counters_.failed_at_once);
            unlink(asked);
            kfree(asked);
        }
    }
    wake_up_interruptible(&sends_finished_);
    return status;
}

void reverse_resolver::answered(ibat_stat_t status, const ibat_arp_data_t* record, void* user_context)
{
    must_not_hold_spin_lock("UCM's completion callback");
    spin_guard guard(&lock_);
    request* asked = by_id_.find(reinterpret_cast<uint64_t>(user_context));
    if (!asked) {
        ++counters_.swallowed;
        return;
    }
    count_answer(status);
    unlink(asked);
    replies_.owe(&asked->asker, status, record ? *record : asked->asker.answer);
}

void reverse_resolver::count_answer(ibat_stat_t status)
{
    switch (status) {
    case ibat_stat_ok:
        ++counters_.answers;
        break;
    case ibat_stat_not_found:
        ++counters_.not_found;
        break;
    case ibat_stat_timeout:
        ++counters_.timeouts;
        break;
    default:
        ++counters_.errors;
    }
}

void reverse_resolver::unlink(request* over)
{
    by_id_.remove(over);
    list_del_init(&over->asker.link);
    --counters_.pending;
}

int32_t reverse_resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdrawn;
    {
        spin_guard guard(&lock_);
        withdrawn = replies_.withdraw(callback, context);
        for (list_head* link = asked_.next; link != &asked_;) {
            request* asked = list_entry(link, request, asker.link);
            link = link->next;
            if (!asked->asker.is(callback, context)) continue;
            unlink(asked);
            kfree(asked);
            ++withdrawn;
        }
    }
    replies_.wait_while_running(callback, context);
    return withdrawn;
}

ucm_counters_t reverse_resolver::counters()
{
    spin_guard guard(&lock_);
    return counters_;
}

} // namespace ucm

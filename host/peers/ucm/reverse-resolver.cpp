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
    attachment_.open(&lock_, "ucm send_rarp");
    list_init(&requests_);
    last_id_ = 0;
    replies_.open(&lock_);
    return requests_by_id_.open(expected_requests);
}

void reverse_resolver::close()
{
    end_attachment();
    replies_.close();
    requests_by_id_.close();
}

ucm_stat_t reverse_resolver::attach(send_rarp_fn_t send_rarp, void* context, void** handle)
{
    return attachment_.attach(send_rarp, context, handle) ? ucm_stat_ok : ucm_stat_error;
}

ucm_stat_t reverse_resolver::detach(void* handle)
{
    if (!attachment_.begin_detach(handle)) return ucm_stat_error;
    end_attachment();
    return ucm_stat_ok;
}

// Refuses new calls of the provider's function and waits for the running ones. end_send() ends the request of a running
// call that fails. Then ends the remaining requests with an error.
void reverse_resolver::end_attachment()
{
    {
        spin_guard guard(&lock_);
        attachment_.refuse_calls();
    }
    attachment_.wait_for_calls();
    spin_guard guard(&lock_);
    while (!list_empty(&requests_)) {
        gid_request* request = list_entry(requests_.next, gid_request, asker.link);
        unlink(request);
        replies_.add(&request->asker, ibat_stat_error, request->asker.answer);
    }
    attachment_.end();
}

ibat_stat_t reverse_resolver::get_ip(const kq_gid_t& gid, ibat_arp_data_t* arp_data,
                                     ibat_get_ib_data_reply_fn_t callback, void* context)
{
    if (!arp_data || !callback) return ibat_stat_error;
    ibat_arp_data_t query = *arp_data;
    query.mask = IBAT_MASK_GID;
    query.gid = gid;
    auto* request = static_cast<gid_request*>(kmalloc(sizeof(gid_request), GFP_KERNEL));
    if (!request) return ibat_stat_error;
    request->asker.callback = callback;
    request->asker.context = context;
    request->asker.answer = {};
    request->asker.answer.mask = IBAT_MASK_GID;
    request->asker.answer.gid = gid;
    send_rarp_provider provider;
    if (!begin(request, &provider)) {
        kfree(request);
        return ibat_stat_error;
    }
    const uint64_t id = request->id; // read it now: an answer may free the request during the next call
    ibat_stat_t status = provider.send(&query, reply_, number_to_context(id), provider.context);
    status = end_send(id, status);
    if (status == ibat_stat_ok) *arp_data = query;
    return status;
}

// Adds a request and begins a call of the provider's function. Stores the provider in `*provider`; the caller then
// calls the provider's function. The provider stays attached until end_send(). Returns false, and adds nothing, if
// there is no provider.
bool reverse_resolver::begin(gid_request* request, send_rarp_provider* provider)
{
    spin_guard guard(&lock_);
    if (!attachment_.accepts_calls()) return false;
    request->id = ++last_id_;
    requests_by_id_.insert(request);
    list_add_tail(&request->asker.link, &requests_);
    *provider = attachment_.begin_call();
    ++counters_.requests;
    ++counters_.pending;
    return true;
}

// get_ip() calls this function when the provider's function has returned `status`. Returns the status for the caller of
// get_ip(). If take_answer() or cancel() has already ended the request, ignores `status` and returns ibat_stat_pending.
ibat_stat_t reverse_resolver::end_send(uint64_t id, ibat_stat_t status)
{
    {
        spin_guard guard(&lock_);
        attachment_.end_call();
        gid_request* request = requests_by_id_.find(id);
        if (!request) {
            status = ibat_stat_pending;
        } else if (status != ibat_stat_pending) {
            ++(status == ibat_stat_ok ? counters_.answered_at_once : counters_.failed_at_once);
            unlink(request);
            kfree(request);
        }
    }
    attachment_.wake_detach();
    return status;
}

void reverse_resolver::take_answer(ibat_stat_t status, const ibat_arp_data_t* record, void* user_context)
{
    must_not_hold_spin_lock("UCM's completion callback");
    spin_guard guard(&lock_);
    gid_request* request = requests_by_id_.find(reinterpret_cast<uint64_t>(user_context));
    if (!request) {
        ++counters_.swallowed;
        return;
    }
    count_answer(status);
    unlink(request);
    replies_.add(&request->asker, status, record ? *record : request->asker.answer);
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

void reverse_resolver::unlink(gid_request* request)
{
    assert(is_held(lock_) && counters_.pending > 0);
    requests_by_id_.remove(request);
    list_del_init(&request->asker.link);
    --counters_.pending;
}

int32_t reverse_resolver::cancel(ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdraw_count;
    {
        spin_guard guard(&lock_);
        withdraw_count = replies_.withdraw(callback, context);
        for (list_head* link = requests_.next; link != &requests_;) {
            gid_request* request = list_entry(link, gid_request, asker.link);
            link = link->next;
            if (!request->asker.matches(callback, context)) continue;
            unlink(request);
            kfree(request);
            ++withdraw_count;
        }
    }
    replies_.wait_while_running(callback, context);
    return withdraw_count;
}

ucm_counters_t reverse_resolver::counters()
{
    spin_guard guard(&lock_);
    return counters_;
}

} // namespace ucm

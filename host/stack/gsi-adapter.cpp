#include "host/stack/gsi-adapter.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

#include "host/kernel/module-image.h"
#include "kernel/errno.h"

namespace stack
{

namespace
{

// The clients' pools are smaller. Therefore the receive pool has room even if the answers to all requests from one pool
// arrive at the same time. A datagram that was never used needs no memory.
constexpr size_t receive_pool_size = 256;

// A client that has registered a class gets TransactionIDs that count up. A client that has joined a class gets
// TransactionIDs of four parts:
//   bits 63-32  joined_mark
//   bit 31      1 (joined_bit)
//   bits 30-24  the client's number
//   bits 23-0   the client's own value
// The low 32 bits of the requests in flight differ. A fabric may replace the high 32 bits on the wire; it restores them
// in the answer.
constexpr uint64_t joined_mark = 0x6A6F696E; // the high 32 bits
constexpr uint64_t joined_bit = uint64_t{1} << 31;
constexpr int number_shift = 24;
constexpr uint8_t last_number = 127;

uint64_t joined_transaction_id(uint8_t number, uint64_t clients_bits)
{
    return joined_mark << 32 | joined_bit | uint64_t{number} << number_shift |
           (clients_bits & gsi_joined_transaction_bits);
}

// Returns the number of the client whose request had this TransactionID: 0 if the client has registered the class.
uint8_t number_in(uint64_t transaction_id)
{
    const bool is_joined = transaction_id >> 32 == joined_mark && (transaction_id & joined_bit);
    return is_joined ? transaction_id >> number_shift & last_number : 0;
}

constexpr size_t class_byte = offsetof(mad_hdr_t, mgt_class);
constexpr size_t method_byte = class_byte + 2;
static_assert(offsetof(mad_hdr_t, u) == method_byte + 1);

mad_hdr_t& header_of(gsi_dtgrm_t& datagram)
{
    return *reinterpret_cast<mad_hdr_t*>(datagram.mad);
}

fabric::address destination_of(const gsi_dtgrm_t& datagram)
{
    return {.lid = datagram.rlid,
            .sl = datagram.sl,
            .path_bits = datagram.path_bits,
            .static_rate = datagram.static_rate,
            .qpn = datagram.rqp,
            .q_key = datagram.rqk != 0 ? datagram.rqk : fabric::qp1_q_key,
            .p_key_index = static_cast<uint16_t>(datagram.pkey_idx)};
}

void fill(gsi_dtgrm_t& datagram, const fabric::address& source, const fabric::mad_bytes& mad)
{
    std::memcpy(datagram.mad, mad.data(), mad.size());
    header_of(datagram).attrib_id = __builtin_bswap16(header_of(datagram).attrib_id);
    datagram.rqp = source.qpn;
    datagram.rqk = source.q_key;
    datagram.rlid = source.lid;
    datagram.sl = source.sl;
    datagram.pkey_idx = source.p_key_index;
    datagram.path_bits = source.path_bits;
    datagram.static_rate = source.static_rate;
}

} // namespace

gsi_adapter::gsi_adapter(kernel::machine& home, fabric::hca& adapter, std::atomic<uint64_t>& last_transaction_id)
    : home_(home), hca_(adapter), hub_(home.get<hca_hubs>().hub_of(adapter)), last_transaction_id_(last_transaction_id),
      context_name_("GSI completion of " + adapter.name()), registrations_(home.exec()),
      receive_pool_(datagram_pool::make(home.exec(), adapter.name() + " receive", receive_pool_size)),
      task_(home, context_name_)
{
    if (!receive_pool_) throw std::bad_alloc();
    const auto work = [this] { return complete() ? std::nullopt : std::optional(exec::never); };
    task_.start(work, "completions");
}

gsi_adapter::~gsi_adapter()
{
    if (!registered_classes_.empty())
        exec::panic("machine %s is destroyed while class %d of port %d of %s is registered with GSI",
                    home_.name().c_str(), registered_classes_[0]->mgt_class, registered_classes_[0]->port,
                    hca_.name().c_str());
}

int gsi_adapter::register_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle)
{
    std::unique_lock lock(mutex_);
    if (find(client->port, client->mgt_class, 0)) return -EK_EXIST;
    add(std::move(client), handle, lock);
    return 0;
}

int gsi_adapter::join_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle)
{
    std::unique_lock lock(mutex_);
    client->number = free_number(*client);
    if (client->number == 0) return -EK_BUSY;
    add(std::move(client), handle, lock);
    return 0;
}

// The caller holds the lock. This function releases it.
void gsi_adapter::add(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle,
                      std::unique_lock<exec::brief_lock>& held_lock)
{
    *handle = client.get();
    registered_classes_.push_back(client.get());
    // This address is never removed, because registrations live as long as the machine.
    home_.addresses.add_object(client.get(), sizeof *client);
    classes_.push_back(std::move(client));
    held_lock.unlock();
    hub_.attach(*this);
    {
        const std::lock_guard lock(mutex_);
        will_be_called_ = false; // the fabric may have left out a promised may_complete() before attach()
    }
    task_.ring();
}

// Returns a number that no other client of the class has on the port, or 0 if all 127 numbers are in use. The caller
// holds mutex_.
uint8_t gsi_adapter::free_number(const gsi_class_t& client) const
{
    for (uint8_t number = 1; number <= last_number; ++number)
        if (!find(client.port, client.mgt_class, number)) return number;
    return 0;
}

int gsi_adapter::deregister(gsi_class_t& client)
{
    {
        const std::lock_guard lock(mutex_);
        if (client.has_ended()) return -EK_INVAL;
        if (!client.end()) return -EK_BUSY;
        std::erase(registered_classes_, &client);
    }
    hub_.detach(*this);
    return 0;
}

std::vector<std::string> gsi_adapter::left_by(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> leftovers;
    for (const gsi_class_t* each : registered_classes_)
        if (module.holds(each->send_callback) || module.holds(each->receive_callback))
            leftovers.push_back("GSI class " + std::to_string(each->mgt_class) + " of port " +
                                std::to_string(each->port) + " of " + hca_.name());
    return leftovers;
}

int gsi_adapter::post(gsi_class_t& client, datagram_record& record, uint64_t* transaction_id)
{
    if (!client.enter()) return -EK_INVAL;
    record.take_over(datagram_state::posted, "gsi_post_send_dtgrm");
    record.client = &client;
    const uint64_t now_ticks = home_.exec().now();
    const uint64_t new_id = new_transaction_id(client, record.datagram());
    if (!put_on_wire(client.port, record.datagram(), new_id)) {
        record.note(now_ticks, datagram_event::refused, client.mgt_class, client.port);
        record.set_state(datagram_state::held);
        client.leave();
        exec::count(counters_.refused);
        return -EK_BUSY;
    }
    record.note(now_ticks, datagram_event::posted, client.mgt_class, client.port);
    exec::count(counters_.posted);
    if (transaction_id) *transaction_id = new_id;
    exec::preemption_point(); // the answer may arrive before the send callback
    std::unique_lock lock(mutex_);
    queue(record, lock, !record.pool.runs_low());
    return 0;
}

uint64_t gsi_adapter::new_transaction_id(const gsi_class_t& client, const gsi_dtgrm_t& datagram)
{
    if (client.number == 0) return exec::fetch_add(last_transaction_id_, 1, std::memory_order_relaxed) + 1;
    const auto& header = reinterpret_cast<const mad_hdr_t&>(datagram.mad);
    return joined_transaction_id(client.number, from_wire(header.transact_id));
}

// Sends a datagram. Returns false if the fabric refused it. The AttributeID is in wire order only during the send.
// Before and after, it is in host order for the client. If the fabric refuses the datagram, the client also gets its
// own TransactionID back.
bool gsi_adapter::put_on_wire(int port, gsi_dtgrm_t& datagram, uint64_t transaction_id)
{
    mad_hdr_t& header = header_of(datagram);
    const mad_hdr_t original_header = header;
    header.transact_id = to_wire(transaction_id);
    header.attrib_id = __builtin_bswap16(header.attrib_id);
    const fabric::address destination = destination_of(datagram);
    const auto& mad = reinterpret_cast<const fabric::mad_bytes&>(datagram.mad);
    registrations_.note_request(port, destination.lid, mad); // first, because the answer may arrive during send()
    const bool is_accepted = hca_.send(port, destination, mad);
    if (is_accepted)
        sa_traffic_.count_request(mad);
    else
        registrations_.note_send_failure(mad);
    header.attrib_id = original_header.attrib_id;
    if (!is_accepted) header.transact_id = original_header.transact_id;
    return is_accepted;
}

void gsi_adapter::mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad)
{
    if (!(mad[method_byte] & MAD_METHOD_RESPONSE)) {
        exec::count(counters_.dropped_no_response);
        return;
    }
    sa_traffic_.count_answer(mad);
    registrations_.note_answer(mad);
    std::unique_lock lock(mutex_);
    be64_t transaction_id;
    std::memcpy(&transaction_id, mad.data() + offsetof(mad_hdr_t, transact_id), sizeof transaction_id);
    const uint8_t number = number_in(from_wire(transaction_id));
    gsi_class_t* client = find(port, mad[class_byte], number);
    if (!client) {
        exec::count(number == 0 ? counters_.dropped_no_class : counters_.dropped_no_asker);
        return;
    }
    datagram_record* record = receive_pool_->take();
    if (!record) {
        exec::count(counters_.dropped_no_datagram);
        return;
    }
    [[maybe_unused]] const bool is_registered = client->enter();
    assert(is_registered); // deregister() ends a client and hides it from find() under mutex_
    fill(record->datagram(), source, mad);
    record->client = client;
    record->note(home_.exec().now(), datagram_event::received, client->mgt_class, client->port);
    record->set_state(datagram_state::received);
    queue(*record, lock, true);
}

void gsi_adapter::may_complete(bool again)
{
    {
        const std::lock_guard lock(mutex_);
        will_be_called_ = again;
    }
    home_.enter(context_name_, [this] { complete(); });
}

gsi_class_t* gsi_adapter::find(int port, uint8_t mgt_class, uint8_t number) const
{
    for (gsi_class_t* each : registered_classes_)
        if (each->port == port && each->mgt_class == mgt_class && each->number == number) return each;
    return nullptr;
}

// Appends a datagram to the queue, and wakes the adapter's task to complete it. No wake-up is needed in two cases. A
// task already runs the completion context: it takes the queue once more before it leaves. Or the fabric has announced
// another may_complete(), and `may_be_deferred` is true: the datagram may wait for this call. The caller holds the
// lock. This function releases the lock.
void gsi_adapter::queue(datagram_record& record, std::unique_lock<exec::brief_lock>& lock, bool may_be_deferred)
{
    assert(lock.owns_lock());
    assert(record.state() == datagram_state::posted || record.state() == datagram_state::received);
    record.next = nullptr;
    if (queue_tail_)
        queue_tail_->next = &record;
    else
        queue_head_ = &record;
    queue_tail_ = &record;
    const bool is_deferred = will_be_called_ && may_be_deferred;
    const bool needs_task = !is_completing_ && !is_deferred;
    lock.unlock();
    if (needs_task) task_.ring();
}

uint64_t gsi_adapter::batch_in_work() const
{
    const std::lock_guard lock(mutex_);
    return is_completing_ ? batch_number_ : 0;
}

// Runs the completion context until the queue is empty. Returns false, and does nothing, if the queue is empty at the
// start, or if another task runs the context.
bool gsi_adapter::complete()
{
    datagram_record* batch = first_batch();
    if (!batch) return false;
    const exec::atomic_section no_sleep(context_name_.c_str());
    while (batch) {
        call_clients(batch);
        batch = next_batch();
    }
    return true;
}

// Enters the completion context and takes the queue. Does not enter, and returns null, if the queue is empty or another
// task runs the context.
datagram_record* gsi_adapter::first_batch()
{
    const std::lock_guard lock(mutex_);
    if (is_completing_ || !queue_head_) return nullptr;
    is_completing_ = true;
    return take_queue();
}

// Takes the datagrams that were queued after the last batch. If there are none, leaves the completion context and
// returns null.
datagram_record* gsi_adapter::next_batch()
{
    const std::lock_guard lock(mutex_);
    assert(is_completing_);
    is_completing_ = queue_head_ != nullptr;
    return take_queue();
}

datagram_record* gsi_adapter::take_queue()
{
    ++batch_number_;
    datagram_record* batch = queue_head_;
    queue_head_ = nullptr;
    queue_tail_ = nullptr;
    return batch;
}

void gsi_adapter::call_clients(datagram_record* batch)
{
    const uint64_t now_ticks = home_.exec().now();
    while (batch) {
        datagram_record& record = *batch;
        batch = record.next; // the callback may put the datagram back, which changes `next`
        call_client(record, now_ticks);
    }
}

void gsi_adapter::call_client(datagram_record& record, uint64_t now_ticks)
{
    gsi_class_t& client = *record.client;
    const bool was_posted = record.state() == datagram_state::posted;
    assert(was_posted || record.state() == datagram_state::received);
    const datagram_event event = was_posted ? datagram_event::sent : datagram_event::delivered;
    const gsi_completion_fn_t callback = was_posted ? client.send_callback : client.receive_callback;
    record.note(now_ticks, event, client.mgt_class, client.port);
    record.set_state(datagram_state::held);
    exec::count(was_posted ? counters_.completed : counters_.delivered);
    callback(&client, client.context, &record.datagram());
    client.leave();
}

gsi_counts gsi_adapter::counts() const
{
    return {.posted = counters_.posted,
            .refused = counters_.refused,
            .completed = counters_.completed,
            .delivered = counters_.delivered,
            .dropped_no_response = counters_.dropped_no_response,
            .dropped_no_class = counters_.dropped_no_class,
            .dropped_no_asker = counters_.dropped_no_asker,
            .dropped_no_datagram = counters_.dropped_no_datagram};
}

} // namespace stack

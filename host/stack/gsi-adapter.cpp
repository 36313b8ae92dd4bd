#include "host/stack/gsi-adapter.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "host/kernel/module-image.h"

#include "kernel/errno.h"

namespace stack
{

namespace
{

// More than the answers to what a client's pool can send at a time; memory is taken only for those that are used.
constexpr size_t receive_pool_size = 256;

constexpr size_t class_byte = offsetof(mad_hdr_t, mgt_class);
constexpr size_t method_byte = class_byte + 2;
static_assert(offsetof(mad_hdr_t, u) == method_byte + 1);

void count(std::atomic<uint64_t>& counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

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
    : home_(home), hca_(adapter), hub_(home.get<hca_hubs>().of(adapter)), last_transaction_id_(last_transaction_id),
      context_name_("GSI completion of " + adapter.name()), registrations_(home.exec()),
      receive_pool_(datagram_pool::make(home.exec(), adapter.name() + " receive", receive_pool_size)),
      task_(home, context_name_)
{
    if (!receive_pool_) throw std::bad_alloc();
    task_.start([this] {
        while (!task_.is_stopping())
            if (!complete()) task_.sleep(exec::never, "completions");
    });
}

gsi_adapter::~gsi_adapter()
{
    if (!registered_.empty())
        exec::panic("machine %s goes while class %d of port %d of %s is registered with GSI", home_.name().c_str(),
                    registered_[0]->mgt_class, registered_[0]->port, hca_.name().c_str());
}

int gsi_adapter::register_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle)
{
    {
        const std::lock_guard lock(mutex_);
        if (find(client->port, client->mgt_class)) return -EK_EXIST;
        *handle = client.get();
        registered_.push_back(client.get());
        home_.addresses.add_object(client.get(), sizeof *client); // classes stay as long as the machine
        classes_.push_back(std::move(client));
    }
    hub_.attach(*this);
    {
        const std::lock_guard lock(mutex_);
        will_be_called_ = false; // the fabric may have taken that back while nobody heard it
    }
    task_.ring();
    return 0;
}

int gsi_adapter::deregister(gsi_class_t& ending)
{
    {
        const std::lock_guard lock(mutex_);
        if (ending.has_ended()) return -EK_INVAL;
        if (!ending.end()) return -EK_BUSY;
        std::erase(registered_, &ending);
    }
    hub_.detach(*this);
    return 0;
}

std::vector<std::string> gsi_adapter::left_by(const kernel::module_code& leaving) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> left;
    for (const gsi_class_t* each : registered_)
        if (leaving.holds(each->sent) || leaving.holds(each->received))
            left.push_back("GSI class " + std::to_string(each->mgt_class) + " of port " + std::to_string(each->port) +
                           " of " + hca_.name());
    return left;
}

int gsi_adapter::post(gsi_class_t& sender, datagram_record& record, uint64_t* transaction_id)
{
    if (!sender.enter()) return -EK_INVAL;
    record.take_over(datagram_state::posted, "gsi_post_send_dtgrm");
    record.client = &sender;
    const uint64_t now_ticks = home_.exec().now();
    const uint64_t assigned = last_transaction_id_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!put_on_wire(sender.port, record.datagram(), assigned)) {
        record.note(now_ticks, datagram_event::refused, sender.mgt_class, sender.port);
        record.become(datagram_state::held);
        sender.leave();
        count(counters_.refused);
        return -EK_BUSY;
    }
    record.note(now_ticks, datagram_event::posted, sender.mgt_class, sender.port);
    count(counters_.posted);
    if (transaction_id) *transaction_id = assigned;
    exec::preemption_point(); // the answer may be here before the send completes
    lock_guard lock(mutex_);
    queue(record, lock, !record.home.runs_low());
    return 0;
}

// The client sees the AttributeID in host order only, after a refused post as after a completion.
bool gsi_adapter::put_on_wire(int port, gsi_dtgrm_t& datagram, uint64_t transaction_id)
{
    mad_hdr_t& header = header_of(datagram);
    const mad_hdr_t as_handed_over = header;
    header.transact_id = to_wire(transaction_id);
    header.attrib_id = __builtin_bswap16(header.attrib_id);
    const fabric::address destination = destination_of(datagram);
    const auto& mad = reinterpret_cast<const fabric::mad_bytes&>(datagram.mad);
    registrations_.leaving(port, destination.lid, mad); // the answer may be here before send() returns
    const bool is_accepted = hca_.send(port, destination, mad);
    if (!is_accepted) registrations_.not_taken(mad);
    header.attrib_id = as_handed_over.attrib_id;
    if (!is_accepted) header.transact_id = as_handed_over.transact_id;
    return is_accepted;
}

void gsi_adapter::mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad)
{
    if (!(mad[method_byte] & MAD_METHOD_RESPONSE)) return count(counters_.dropped_no_response);
    registrations_.arrived(mad);
    lock_guard lock(mutex_);
    gsi_class_t* client = find(port, mad[class_byte]);
    if (!client) return count(counters_.dropped_no_class);
    datagram_record* record = receive_pool_->take();
    if (!record) return count(counters_.dropped_no_datagram);
    client->enter(); // cannot have ended: it would not have been found
    fill(record->datagram(), source, mad);
    record->client = client;
    record->note(home_.exec().now(), datagram_event::received, client->mgt_class, client->port);
    record->become(datagram_state::received);
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

gsi_class_t* gsi_adapter::find(int port, uint8_t mgt_class) const
{
    for (gsi_class_t* each : registered_)
        if (each->port == port && each->mgt_class == mgt_class) return each;
    return nullptr;
}

// `may_be_deferred`: until the fabric calls may_complete(), if it will.
void gsi_adapter::queue(datagram_record& record, lock_guard& lock, bool may_be_deferred)
{
    record.next = nullptr;
    (last_ ? last_->next : first_) = &record;
    last_ = &record;
    const bool ring = !completing_ && !(will_be_called_ && may_be_deferred);
    lock.unlock();
    if (ring) task_.ring();
}

// False: there was nothing to do, or it is being done.
bool gsi_adapter::complete()
{
    datagram_record* batch = take_all(false);
    if (!batch) return false;
    const exec::atomic_section no_sleep(context_name_.c_str());
    do {
        const uint64_t now_ticks = home_.exec().now();
        while (batch) hand_out(*std::exchange(batch, batch->next), now_ticks);
        batch = take_all(true);
    } while (batch);
    return true;
}

datagram_record* gsi_adapter::take_all(bool goes_on)
{
    const std::lock_guard lock(mutex_);
    if (completing_ && !goes_on) return nullptr;
    completing_ = first_ != nullptr;
    last_ = nullptr;
    return std::exchange(first_, nullptr);
}

void gsi_adapter::hand_out(datagram_record& record, uint64_t now_ticks)
{
    gsi_class_t& client = *record.client;
    const bool was_posted = record.state() == datagram_state::posted;
    record.note(now_ticks, was_posted ? datagram_event::sent : datagram_event::delivered, client.mgt_class,
                client.port);
    record.become(datagram_state::held);
    count(was_posted ? counters_.completed : counters_.delivered);
    (was_posted ? client.sent : client.received)(&client, client.context, &record.datagram());
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
            .dropped_no_datagram = counters_.dropped_no_datagram};
}

} // namespace stack

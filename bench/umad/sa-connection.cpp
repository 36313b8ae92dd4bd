#include "bench/umad/sa-connection.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace sa_load
{

namespace
{

constexpr int umad_wait_ms = 20000; // the kernel reports a request without an answer after this time
constexpr int sa_q_key = static_cast<int>(0x80010000);
constexpr uint32_t slot_bits = 16; // the low bits of a transaction are the slot, the high bits are a counter
static_assert(connection::most_in_flight == 1u << slot_bits);

struct umad_buffer {
    ib_user_mad_t header;
    sa_mad_v2_t mad;
};

} // namespace

double tally::percentile_ms(double percent)
{
    if (latency_ms.empty()) return 0;
    const auto rank = static_cast<size_t>(static_cast<double>(latency_ms.size() - 1) * percent / 100);
    std::ranges::nth_element(latency_ms, latency_ms.begin() + static_cast<std::ptrdiff_t>(rank));
    return static_cast<double>(latency_ms[rank]);
}

connection::connection() : slots_(most_in_flight)
{
    if (umad_init() < 0 || umad_get_port(nullptr, 0, &attributes_) < 0)
        throw std::runtime_error("there is no active InfiniBand port");
    umad_release_port(&attributes_); // frees only the list of P_Keys; the other fields do not change
    port_ = umad_open_port(attributes_.ca_name, attributes_.portnum);
    if (port_ < 0 || umad_size() != sizeof(ib_user_mad_t)) throw std::runtime_error("cannot open the port");
    agent_ = umad_register(port_, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    if (agent_ < 0) throw std::runtime_error("cannot register the SA class");
    for (uint32_t i = most_in_flight; i > 0; --i) free_slots_.push_back(i - 1);
}

connection::~connection()
{
    umad_unregister(port_, agent_);
    umad_close_port(port_);
}

kq_gid_t connection::gid() const
{
    return {.eui64 = be64toh(attributes_.port_guid), .subnet = be64toh(attributes_.gid_prefix)};
}

void connection::send(const sa_mad_v2_t& request)
{
    if (free_slots_.empty()) throw std::runtime_error("too many requests are in flight");
    const uint32_t index = free_slots_.back();
    umad_buffer buffer{};
    umad_set_addr(&buffer, attributes_.sm_lid, 1, attributes_.sm_sl, sa_q_key);
    buffer.mad = request;
    ++sent_count_;
    if (sent_count_ << slot_bits == 0) ++sent_count_; // a transaction must not be 0, which marks a free slot
    const uint32_t transaction = sent_count_ << slot_bits | index;
    buffer.mad.hdr.transact_id = to_wire(uint64_t{transaction});
    if (umad_send(port_, agent_, &buffer, MAD_SIZE, umad_wait_ms, 0) < 0)
        throw std::runtime_error("a request was not sent");
    free_slots_.pop_back();
    slots_[index] = {transaction, clock::now()};
    ++in_flight_;
}

bool connection::receive(std::chrono::milliseconds longest)
{
    umad_buffer buffer;
    int length = MAD_SIZE;
    if (umad_recv(port_, &buffer, &length, static_cast<int>(longest.count())) < 0) return false;
    const auto transaction = static_cast<uint32_t>(from_wire(buffer.mad.hdr.transact_id));
    slot& slot = slots_[transaction & (most_in_flight - 1)];
    if (slot.transaction != transaction || transaction == 0) return true; // give_up_lost() has counted it as lost
    if (umad_status(&buffer) != 0) {
        ++results.lost;
        release(slot);
        return true;
    }
    const clock::duration latency = clock::now() - slot.send_time;
    const uint16_t status = from_wire(buffer.mad.hdr.u.ns.status.raw16);
    ++results.answered;
    results.late += latency > late_after;
    results.busy += (status & MAD_STATUS_BUSY) != 0;
    results.refused += status != 0 && (status & MAD_STATUS_BUSY) == 0;
    results.latency_ms.push_back(std::chrono::duration<float, std::milli>(latency).count());
    release(slot);
    return true;
}

void connection::give_up_lost()
{
    const clock::time_point now = clock::now();
    for (slot& each : slots_) {
        if (each.transaction == 0 || now - each.send_time < lost_after) continue;
        ++results.lost;
        release(each);
    }
}

void connection::release(slot& slot)
{
    slot.transaction = 0;
    free_slots_.push_back(static_cast<uint32_t>(&slot - slots_.data()));
    --in_flight_;
}

} // namespace sa_load

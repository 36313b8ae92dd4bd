// The interface between a host and the wire. GSI and verbs (host/stack) reach the wire only through this interface, so
// they work on a simulated subnet and on real ports. Names are those of the InfiniBand Architecture. Numbers are in
// host order; datagrams are wire bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ib-types.h"

namespace fabric
{

using mad_bytes = std::array<uint8_t, 256>;

constexpr uint32_t qp1_q_key = 0x80010000; // IBA 10.2.5: the well-known Q_Key of every QP1

// A GID in wire order.
using gid_bytes = std::array<uint8_t, 16>;

inline gid_bytes make_gid(uint64_t prefix, uint64_t guid)
{
    return std::to_array(to_wire(kq_gid_t{.eui64 = guid, .subnet = prefix}).bytes);
}

// The destination or the source of a datagram.
struct address {
    uint16_t lid = 0;
    uint8_t sl = 0;
    uint8_t path_bits = 0;
    uint8_t static_rate = 0;
    uint32_t qpn = 1;
    uint32_t q_key = qp1_q_key;
    uint16_t p_key_index = 0;
};

// IBA 14.2.5.6, PortInfo.PortState.
enum class link_state : uint8_t { down = 1, init = 2, armed = 3, active = 4 };

// Returns the state with this number, or `down` if there is no such state.
constexpr link_state link_state_of(unsigned number)
{
    return number >= 1 && number <= 4 ? static_cast<link_state>(number) : link_state::down;
}

// The attributes of a port at one moment (IBA 14.2.5: PortInfo, GUIDInfo and P_KeyTable).
struct port_attributes {
    link_state state = link_state::down;
    uint16_t lid = 0;
    uint8_t lmc = 0;
    uint16_t sm_lid = 0;
    uint8_t sm_sl = 0;
    uint8_t mtu = 4; // PortInfo encoding: 1 is 256 bytes, 5 is 4096
    uint8_t max_vls = 1;
    uint32_t capability_mask = 0;
    uint32_t bad_p_keys = 0;
    uint32_t bad_q_keys = 0;
    std::vector<gid_bytes> gids; // entry 0 first
    std::vector<uint16_t> p_keys;
};

// reregister: the port stays active, but the host must register its records again. Either the SA may have lost them, or
// their content is outdated.
enum class port_change { link_up, link_down, sm_change, reregister };

// Receives the events of an HCA. A task of the fabric makes these calls, or a task that calls hca::poll(). One HCA
// makes one call at a time. A listener may call hca::send(), because the fabric holds no lock that send() needs. A
// listener must not sleep.
class listener
{
  public:
    // A datagram arrived at QP1 of `port`.
    virtual void mad_arrived(int port, const address& source, const mad_bytes& mad) = 0;

    // In this call, the listener can complete the work that earlier mad_arrived() calls have queued. If `again` is
    // true, another may_complete() follows within a few ticks, even if nothing arrives. The listener may then leave the
    // work for the next call. The embedded fabric never calls may_complete().
    virtual void may_complete(bool /*again*/) {}

    // `port` has changed. `new_sm_lid` is valid for sm_change and reregister. read_port() already returns the new
    // attributes.
    virtual void port_changed(int port, port_change change, uint16_t new_sm_lid) = 0;

  protected:
    ~listener() = default;
};

// One host channel adapter in a host. The fabric owns it: it is valid as long as the fabric exists. Any thread may make
// any call.
class hca
{
  public:
    virtual const std::string& name() const = 0;
    virtual int port_count() const = 0; // ports are numbered from 1

    // Reads the attributes of a port. `port` must be 1 to port_count(). May sleep.
    virtual port_attributes read_port(int port) = 0;

    // Sends one datagram from QP1 of `port`. Returns true if the fabric has accepted the datagram, which may still be
    // lost. Returns false otherwise, for example if the send queue is full or the port does not exist. Copies `mad`
    // without kmalloc, so the copy does not count as memory of the sender's machine. Does not sleep.
    virtual bool send(int port, const address& destination, const mad_bytes& mad) = 0;

    // Busy polling: receives in the calling task instead of the fabric's own task, and calls the listener. A task that
    // expects answers calls this instead of sleeping. Waits at most one tick at each port that has just received
    // something, and does not wait at other ports. Returns false if nothing arrived, or if the fabric has no polling.
    // The caller must be a task that may sleep. The listener must not call poll().
    virtual bool poll() { return false; }

    // Sets the listener, or removes it (null). After listen() has returned, the fabric does not call the previous
    // listener any more. May sleep. The listener itself must not call listen().
    virtual void listen(listener* listener) = 0;

  protected:
    ~hca() = default;
};

// Sees the datagrams that ports send and receive, in order. A fabric may leave out a datagram that the sending port
// drops, for example because the link of that port is down. The task that sends or receives the datagram calls
// crossed(), which must not sleep.
class tap
{
  public:
    virtual void crossed(uint64_t now_ticks, uint16_t source_lid, const address& destination, const mad_bytes& mad) = 0;

  protected:
    ~tap() = default;
};

} // namespace fabric

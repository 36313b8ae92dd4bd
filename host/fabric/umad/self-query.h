// A port's attributes, asked of the port itself: directed-route SMPs of no hops (IBA 14.2.2), one at a time, from
// NodeInfo to the last block of the P_Key table. A port answers them whether its link is up or not, and where a
// program's view of the system's files does not change.
#pragma once

#include <optional>
#include <vector>

#include "host/fabric/fabric.h"

namespace umad
{

constexpr uint8_t class_directed_route = 0x81; // IBA 13.4.4
constexpr uint8_t class_version_smp = 1;

class self_query
{
  public:
    explicit self_query(int port) : port_(port) {}

    // The first question comes next.
    void restart();

    // The question that comes next, with a transaction ID of its own.
    fabric::mad_bytes next_question();

    // True: it is the awaited answer.
    bool accept(const fabric::mad_bytes& answer);

    // What the port said, once it has answered every question since restart().
    std::optional<fabric::port_attributes> result() const;

  private:
    enum class subject { node_info, port_info, guids, p_keys, none };

    void accept_node(const uint8_t* node_info);
    void accept_port(const uint8_t* port_info);
    void accept_guids(const uint8_t* block);
    void accept_p_keys(const uint8_t* block);

    const int port_;
    subject asked_ = subject::node_info;
    uint16_t p_key_block_ = 0;
    uint16_t p_key_blocks_ = 1;
    uint32_t transaction_ = 0;
    uint64_t gid_prefix_ = 0;
    fabric::port_attributes heard_;
};

} // namespace umad

// Asks a port of this machine for its own attributes, with directed-route SMPs that have a hop count of 0 (IBA 14.2.2).
// This class only makes the questions and reads the answers; the class `port` sends and receives them. A port answers
// even while its link is down. Under ibsim, only these answers show changes, because there the system's files do not
// change.
//
// A look is a series of questions that reads the attributes once. A whole look asks for NodeInfo, PortInfo, the first
// block of GUIDInfo, and all blocks of the P_Key table. A brief look asks only for PortInfo. If PortInfo has changed,
// the look becomes a whole one.
#pragma once

#include <array>
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

    enum class look { whole, brief };

    // Starts a new look of this kind. A brief look compares PortInfo with the one of the last whole look.
    void restart(look kind);

    // Returns the first question of the look that has no answer yet. Each call uses a new TransactionID.
    fabric::mad_bytes next_question();

    // Processes an answer. If it does not answer the last question, or if it has an error status, ignores it and
    // returns false.
    bool accept(const fabric::mad_bytes& answer);

    // The attributes, or none until the port has answered all questions of the look.
    std::optional<fabric::port_attributes> result() const;

  private:
    enum class question { node_info, port_info, guids, p_keys, none };

    using port_info_bytes = std::array<uint8_t, 64>;

    void restart_with(question first);
    void accept_node(const uint8_t* node_info);
    void accept_port(const uint8_t* port_info);
    void accept_guids(const uint8_t* block);
    void accept_p_keys(const uint8_t* block);

    const int port_;
    question question_ = question::node_info; // the first question that has no answer yet
    uint16_t p_key_block_ = 0;
    uint16_t p_key_blocks_ = 1;
    uint32_t transaction_ = 0;
    uint64_t gid_prefix_ = 0;
    port_info_bytes port_info_{};
    fabric::port_attributes attributes_;
    look kind_ = look::whole;
    port_info_bytes known_port_info_{};        // from the last whole look
    fabric::port_attributes known_attributes_; // from the last whole look
};

} // namespace umad

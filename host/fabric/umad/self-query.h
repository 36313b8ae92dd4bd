// Asks a port for its own attributes with directed-route SMPs with a hop count of 0 (IBA 14.2.2). It sends one question
// at a time, from NodeInfo to the last block of the P_Key table. A brief look asks only for PortInfo, unless PortInfo
// has changed. A port also answers while its link is down. Under ibsim this is the only way to see changes, because
// there the system's files do not change.
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

    // Starts again. A brief look needs one question, unless PortInfo has changed since the last whole look.
    enum class look { whole, brief };
    void restart(look extent);

    // Returns the question that is not answered yet, with a new TransactionID.
    fabric::mad_bytes next_question();

    // Processes an answer. Returns false, and ignores it, if it does not answer the last question.
    bool accept(const fabric::mad_bytes& answer);

    // The attributes, once the port has answered all questions since restart().
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
    question question_ = question::node_info; // the next one without an answer
    uint16_t p_key_block_ = 0;
    uint16_t p_key_blocks_ = 1;
    uint32_t transaction_ = 0;
    uint64_t gid_prefix_ = 0;
    port_info_bytes port_info_{};
    fabric::port_attributes attributes_;
    look extent_ = look::whole;
    port_info_bytes known_port_info_{}; // of the last whole look, like the following members
    fabric::port_attributes known_attributes_;
};

} // namespace umad

// Asks a port for its own attributes: by directed-route SMPs of no hops (IBA 14.2.2), one at a time, from NodeInfo to
// the last block of the P_Key table. A short look asks for PortInfo only, unless that has changed. A port answers
// whether its link is up or not. Under ibsim this is the only way to see changes, because there the system's files do
// not change.
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

    // Begins again. A short look needs one question, as long as PortInfo is what it was in the last whole look.
    enum class look { whole, brief };
    void restart(look extent);

    // Returns the question that is not answered yet, with a new TransactionID.
    fabric::mad_bytes next_question();

    // Takes an answer. False: it does not answer the last question, and is ignored.
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
    question question_ = question::node_info; // the one not answered yet
    uint16_t p_key_block_ = 0;
    uint16_t p_key_blocks_ = 1;
    uint32_t transaction_ = 0;
    uint64_t gid_prefix_ = 0;
    port_info_bytes port_info_{};
    fabric::port_attributes attributes_;
    look extent_ = look::whole;
    port_info_bytes known_port_info_{}; // of the last whole look, as the next
    fabric::port_attributes known_attributes_;
};

} // namespace umad

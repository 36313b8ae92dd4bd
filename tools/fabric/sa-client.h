// A client of the SA for small tools. It uses only libibumad, so it is independent of the service.
#pragma once

#include <cstdint>
#include <optional>

#include "sa-mads.h"

namespace fabric_tools
{

// Prints the reason, and ends the program with exit code 2.
[[noreturn]] void fail(const char* reason);

// Reads a GID like "fe80::1", or "0x" and 32 hexadecimal digits. Returns false if the text is not a GID.
bool parse_gid(const char* text, wire_gid_t& gid);

class sa_client
{
  public:
    // Opens the default port of libibumad: the first active one, if any is active. Calls fail() if there is no port, or
    // if it cannot be used.
    sa_client();

    // Sends the request with a new TransactionID up to five times, until the SA answers. Returns the answer, or
    // nothing. Each time, waits up to one second for the answer; the arrival of another datagram ends this wait. Calls
    // fail() if the request cannot be sent.
    std::optional<sa_mad_v2_t> ask(sa_mad_v2_t request);

  private:
    std::optional<sa_mad_v2_t> receive(uint32_t transaction) const;

    int sm_lid_ = 0, sm_sl_ = 0;
    int descriptor_ = -1, agent_ = -1;
    uint32_t transaction_ = 0x5E7;
};

} // namespace fabric_tools

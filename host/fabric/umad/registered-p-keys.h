// The P_Keys of the records that this host has registered through one HCA. This class learns them from the Sets that
// the host sends, and writes them into Deletes without a P_Key. The reason: some SAs find a record only by its whole
// identifier, which includes the P_Key (see delete_p_key in umad.h).
#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "host/fabric/umad/umad.h"
#include "sa-mads.h"

namespace umad
{

// Any thread may make any call.
class registered_p_keys
{
  public:
    explicit registered_p_keys(delete_p_key setting) : setting_(setting) {}

    // Processes a MAD before it is sent. Learns the P_Key of a Set, and may write a P_Key into a Delete. `port` has the
    // attributes of the sending port. Returns true if a P_Key was written. Does nothing with delete_p_key::off.
    bool complete(sa_mad_v2_t& mad, const fabric::port_attributes& port);

  private:
    struct key {
        uint64_t service_id;
        fabric::gid_bytes gid;
        auto operator<=>(const key&) const = default; // NOLINT(modernize-use-nullptr): a false finding of clang-tidy 14
    };

    const delete_p_key setting_;
    std::mutex mutex_;
    std::map<key, uint16_t> p_keys_; // one for each ServiceID and GID of this host, usually few
};

} // namespace umad

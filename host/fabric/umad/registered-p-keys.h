// The P_Keys of the records that this host has registered through an HCA. They are learned from the Sets that the host
// sends. They are written into Deletes without a P_Key, because some SAs find a record by its whole identifier only.
#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "host/fabric/umad/umad.h"
#include "sa-mads.h"

namespace umad
{

// Any thread.
class registered_p_keys
{
  public:
    explicit registered_p_keys(delete_p_key setting) : setting_(setting) {}

    // Processes a MAD that `port` is about to send. Learns the P_Key of a Set; may write a P_Key into a Delete. Returns
    // true if it wrote one.
    bool complete(sa_mad_v2_t& mad, const fabric::port_attributes& port);

  private:
    struct key {
        uint64_t service_id;
        fabric::gid_bytes gid;
        auto operator<=>(const key&) const = default; // NOLINT(modernize-use-nullptr): a false finding of clang-tidy 14
    };

    const delete_p_key setting_;
    std::mutex mutex_;
    std::map<key, uint16_t> p_keys_; // one for each GID that this host has had, usually few
};

} // namespace umad

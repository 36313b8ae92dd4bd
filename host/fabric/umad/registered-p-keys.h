// What this host has registered through an HCA, learned from the Sets that leave, so that a Delete without a P_Key can
// name the whole record to an SA that insists on it.
#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "host/fabric/umad/umad.h"
#include "sa-mads.h"

namespace umad
{

// Any thread.
class own_records
{
  public:
    explicit own_records(delete_p_key setting) : setting_(setting) {}

    // Looks at a MAD that is about to leave `port`. A Delete may get a P_Key; returns whether it did.
    bool leaving(sa_mad_v2_t& mad, const fabric::port_attributes& port);

  private:
    struct key {
        uint64_t service_id;
        fabric::gid_bytes gid;
        auto operator<=>(const key&) const = default;
    };

    const delete_p_key setting_;
    std::mutex mutex_;
    std::map<key, uint16_t> p_keys_; // of records Set; a handful, one for each GID this host ever had
};

} // namespace umad

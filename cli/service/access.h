// Who may ask the service what. The kernel says which user a connection is of.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "host/result.h"

namespace cli
{

// The user at the other end of a connection.
struct peer {
    uid_t user = 0;
    std::vector<gid_t> groups;
};

// The peer of a connected socket, or nothing when the kernel does not say.
std::optional<peer> peer_of(int socket);

// Who may send requests of one kind, besides root and the user that runs the service, who always may.
struct access_rule {
    enum class audience { owner, everyone, group };
    audience audience = audience::owner;
    gid_t group = 0;       // of audience::group
    std::string name = {}; // as configured, of audience::group

    bool admits(const peer& peer) const;

    // "everyone", "root and the user NAME" or "the group NAME".
    std::string text() const;
};

struct access_rules {
    access_rule questions;
    access_rule orders;
    int log_level =
        0; // the trace level up to which those who may ask questions, but not give orders, read logs; 0: none

    // True if a user other than root and the owner may ask anything.
    bool is_open_to_others() const;
};

// "owner", "everyone" or a group's name. Error: no such group.
ats::result<access_rule> access_rule_of(const std::string& word);

} // namespace cli

// The access rules define which users may send which requests to the service. The kernel names the user of a
// connection.
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

// The peer of a connected socket, or nothing if the kernel does not tell.
std::optional<peer> peer_of(int socket);

// Returns "root", or "root and the user NAME" if another user runs this service. Asks the user database.
std::string owner_text();

// The users that may send requests of one kind. Root and the user that runs the service always may.
struct access_rule {
    enum class audience { owner, everyone, group };
    audience audience = audience::owner;
    gid_t group = 0;                 // for audience::group
    std::string text = owner_text(); // describes the users in refusals

    bool admits(const peer& peer) const;
    bool operator==(const access_rule&) const = default;
};

struct access_rules {
    access_rule questions;
    access_rule orders;
    // Users who may ask questions but not give orders can read log lines up to this trace level; 0 means none.
    int log_level = 0;

    // Returns true if a user other than root and the owner may ask anything.
    bool is_open_to_others() const;
    bool operator==(const access_rules&) const = default;
};

// `word` is "owner", "everyone" or the name of a group. An unknown group is invalid. Asks the user database, which may
// be slow.
ats::result<access_rule> access_rule_of(const std::string& word);

} // namespace cli

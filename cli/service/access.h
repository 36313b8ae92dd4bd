// The access rules define which users may send which requests to the service. A request is a question, which changes
// nothing, or an order. The kernel tells the service the user of a connection (SO_PEERCRED).
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

// Returns the user at the other end of a connected socket, or nothing if the kernel cannot tell.
std::optional<peer> peer_of(int socket);

// Returns "root", or "root and the user NAME" if another user runs this service. Asks the user database.
std::string owner_text();

// Selects the users that may send questions, or the users that may send orders. Root and the user that runs the service
// may always send both.
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
    // The highest trace level of log lines for users who may send questions but no orders; 0 means no lines.
    int log_level = 0;

    // Returns true if users other than root and the user that runs the service may send questions or orders.
    bool is_open_to_others() const;
    bool operator==(const access_rules&) const = default;
};

// Makes a rule from `word`: "owner", "everyone" or the name of a group. Fails (invalid) if the group is unknown. Asks
// the user database, which may be slow.
ats::result<access_rule> access_rule_of(const std::string& word);

} // namespace cli

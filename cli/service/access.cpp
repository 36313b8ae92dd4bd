#include "cli/service/access.h"

#include <algorithm>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cli
{

namespace
{

std::vector<gid_t> groups_of(int socket, gid_t primary)
{
    std::vector<gid_t> groups(64);
    socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0) {
        groups.resize(bytes / sizeof(gid_t)); // getsockopt() sets `bytes` to the needed size if the buffer is too small
        bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0) bytes = 0;
    }
    groups.resize(bytes / sizeof(gid_t));
    groups.push_back(primary);
    return groups;
}

bool is_owner(const peer& peer)
{
    return peer.user == 0 || peer.user == geteuid();
}

} // namespace

std::optional<peer> peer_of(int socket)
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    return peer{credentials.uid, groups_of(socket, credentials.gid)};
}

std::string owner_text()
{
    if (geteuid() == 0) return "root";
    const passwd* entry = getpwuid(geteuid());
    return "root and the user " + (entry ? std::string(entry->pw_name) : std::to_string(geteuid()));
}

bool access_rule::admits(const peer& peer) const
{
    if (is_owner(peer) || audience == audience::everyone) return true;
    return audience == audience::group && std::ranges::find(peer.groups, group) != peer.groups.end();
}

bool access_rules::is_open_to_others() const
{
    constexpr auto owner = access_rule::audience::owner;
    return questions.audience != owner || orders.audience != owner;
}

ats::result<access_rule> access_rule_of(const std::string& word)
{
    if (word == "owner") return access_rule{};
    if (word == "everyone") return access_rule{access_rule::audience::everyone, 0, word};
    const ::group* entry = getgrnam(word.c_str());
    if (entry) return access_rule{access_rule::audience::group, entry->gr_gid, "the group " + word};
    return ats::fail(ats::error_kind::invalid,
                     "there is no group '" + word + "': write \"everyone\", \"owner\" or a group's name");
}

} // namespace cli

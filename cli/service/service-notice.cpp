#include "cli/service/service-notice.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "client/descriptor.h"

namespace cli
{

namespace
{

bool send_with_file(int sender, msghdr& message, int file)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
    if (file >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof file);
        std::memcpy(CMSG_DATA(header), &file, sizeof file);
    }
    return sendmsg(sender, &message, MSG_NOSIGNAL) >= 0;
}

} // namespace

bool notify_service_manager(const char* state, int file)
{
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (!path || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return false;
    std::strcpy(address.sun_path, path);
    if (path[0] == '@') address.sun_path[0] = '\0'; // an abstract socket
    const client::descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    constexpr timeval longest_wait{.tv_sec = 0, .tv_usec = 100'000};
    setsockopt(sender.get(), SOL_SOCKET, SO_SNDTIMEO, &longest_wait, sizeof longest_wait);
    iovec text{.iov_base = const_cast<char*>(state), .iov_len = std::strlen(state)};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    return send_with_file(sender.get(), message, file);
}

} // namespace cli

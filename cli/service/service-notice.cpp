#include "cli/service/service-notice.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace cli
{

void notify_service_manager(const char* state)
{
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (!path || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
    std::strcpy(address.sun_path, path);
    if (path[0] == '@') address.sun_path[0] = '\0'; // an abstract socket
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender < 0) return;
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    sendto(sender, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), length);
    close(sender);
}

} // namespace cli

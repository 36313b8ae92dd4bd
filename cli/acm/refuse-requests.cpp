#include "cli/acm/refuse-requests.h"

#include <array>
#include <sys/socket.h>

#include "cli/acm/messages.h"
#include "cli/acm/store-names.h"

namespace acm
{

namespace
{

// Refuses the request in the socket, if there is one.
void refuse_request(int socket)
{
    std::array<uint8_t, longest_message> bytes;
    const ssize_t size = recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size <= 0) return;
    const auto request = message_view(bytes).first(static_cast<size_t>(size));
    if (length_of(request) != request.size()) return; // without a whole request, no program waits for an answer
    const message answer = refusal(request, status::not_connected);
    send(socket, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Accepts the programs that wait at the listening socket, gives their connections to the service manager, and refuses
// their requests.
void accept_all(int listener, uint64_t last_number)
{
    while (true) {
        const client::descriptor socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket.is_open()) return;
        cli::keep_descriptor(connection_name(++last_number), socket.get());
        refuse_request(socket.get());
    }
}

} // namespace

void refuse_waiting_requests(std::vector<cli::kept_descriptor> descriptors)
{
    const uint64_t last_number = last_number_in(descriptors);
    for (const cli::kept_descriptor& descriptor : descriptors) {
        if (is_connection_name(descriptor.name)) refuse_request(descriptor.file.get());
        if (descriptor.name != listener_name) continue;
        cli::forget_descriptor(listener_name);
        accept_all(descriptor.file.get(), last_number); // ends, because the listening socket is non-blocking
    }
}

} // namespace acm

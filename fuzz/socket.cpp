// Fuzzes the sockets of `ats run`. An input is the bytes that a client sends before it closes its side of the
// connection. An input that begins with the version of librdmacm's protocol goes to the socket for librdmacm. All other
// inputs go to the socket for clients. Threads serve both sockets in real time.
#include <sys/socket.h>
#include <unistd.h>

#include "cli/acm/door.h"
#include "cli/server/server.h"
#include "fuzz/one-host.h"
#include "tools/clients/raw-connection.h"

namespace
{

struct service {
    service()
    {
        fuzz::require(hosts->start([](size_t) { return true; }).value_or(false), "the hosts do not start");
        fuzz::require(door.listen().has_value(), "the socket of librdmacm cannot be made");
    }

    static cli::world_config config()
    {
        cli::world_config config = cli::numbered_hosts(2);
        config.hosts[0].modules[0].parameters = "ibat_retry_ticks=1"; // a request without an answer then fails soon
        return config;
    }

    std::unique_ptr<cli::running_hosts> hosts =
        cli::running_hosts::build(config(), world::default_module_folder(), [](const std::string&, const std::string&) {
        }).value();
    std::string path = "/tmp/ats-fuzz-" + std::to_string(getpid());
    std::unique_ptr<cli::server> server =
        cli::server::start(*hosts, cli::listening_socket::open(path, false).value(), {}).value();
    acm::route_finder routes{*server, *hosts};
    std::string acm_path = path + "-acm";
    acm::door door{server->loop(),
                   routes,
                   {.is_served = true, .socket = acm_path, .timeout_ms = 20},
                   {},
                   hosts->statistics().librdmacm,
                   {}};
};

void send_all(int socket, const uint8_t* bytes, size_t size)
{
    while (size > 0) {
        const ssize_t length = send(socket, bytes, size, MSG_NOSIGNAL);
        if (length <= 0) return;
        bytes += length;
        size -= static_cast<size_t>(length);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static service service;
    const bool is_acm = size > 0 && bytes[0] == acm::protocol_version;
    const bool says_hello = !is_acm && size % 8 != 0; // if false, a client input has its own hello, or none
    const raw_connection client(is_acm ? service.acm_path : service.path, says_hello);
    send_all(client.fd(), bytes, size);
    shutdown(client.fd(), SHUT_WR);
    char answers[4096];
    while (recv(client.fd(), answers, sizeof answers, 0) > 0) continue;
    return 0;
}

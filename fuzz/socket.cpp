// The socket of `ats run`: an input is the text that a client sends before it closes its side. Threads serve it in real
// time.
#include <sys/socket.h>
#include <unistd.h>

#include "cli/server/server.h"
#include "fuzz/one-host.h"
#include "tools/clients/raw-connection.h"

namespace
{

struct service {
    service()
    {
        fuzz::require(hosts->start([](size_t) { return true; }).value_or(false), "the hosts do not start");
    }

    static cli::world_config config()
    {
        cli::world_config config = cli::numbered_hosts(2);
        config.hosts[0].modules[0].parameters = "ibat_retry_ticks=1"; // requests do not wait long for an answer
        return config;
    }

    std::unique_ptr<cli::running_hosts> hosts =
        cli::running_hosts::build(config(), world::default_module_folder()).value();
    std::string path = "/tmp/ats-fuzz-" + std::to_string(getpid());
    std::unique_ptr<cli::server> server =
        cli::server::start(*hosts, cli::listening_socket::open(path, false).value(), {}).value();
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
    const raw_connection client(service.path, size % 8 != 0); // some inputs begin before the hello
    send_all(client.fd(), bytes, size);
    shutdown(client.fd(), SHUT_WR);
    char answers[4096];
    while (recv(client.fd(), answers, sizeof answers, 0) > 0) continue;
    return 0;
}

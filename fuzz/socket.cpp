// The socket of `ats run`: an input is what a client writes before it has no more to say. Real threads serve it.
#include <sys/socket.h>
#include <unistd.h>

#include "cli/service/server.h"
#include "fuzz/one-host.h"

namespace
{

struct service {
    service()
    {
        config.hosts[0].modules[0].parameters = "ibat_retry_ticks=1"; // nobody waits long for an answer
        hosts.start([](size_t) { return true; });
    }

    cli::world_config config = cli::numbered_hosts(2);
    cli::running_hosts hosts{config, world::default_module_folder()};
    std::string path = "/tmp/ats-fuzz-" + std::to_string(getpid());
    cli::server server{hosts, cli::listening_socket::open(path).value()};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static service running;
    const cli::descriptor client = cli::connect_to(running.path).value();
    for (ssize_t sent; size > 0; bytes += sent, size -= static_cast<size_t>(sent))
        if ((sent = send(client.get(), bytes, size, MSG_NOSIGNAL)) <= 0) break;
    shutdown(client.get(), SHUT_WR);
    char answers[4096];
    while (recv(client.get(), answers, sizeof answers, 0) > 0) {}
    return 0;
}

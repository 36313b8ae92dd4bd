// Measures a minimal service that makes lookups for client processes, with sockets and libibumad only. It is the
// reference for `ats run` on a real fabric. One thread passes questions from the clients to the SA. The other thread
// passes the answers of the SA to the clients.
//   bare-service LOOKUPS ADDRESS...
// One client process runs for each address. It asks again and again, and waits for each answer. It makes an equal part
// of the LOOKUPS, but at least one. Questions and answers have about as many bytes as those of a real service. Prints
// the lookups per second of all clients together.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/umad/bare-port.h"

namespace
{

constexpr int timeout_ms = 2000;
using question = std::array<char, 72>;
using answer = std::array<char, 256>;

[[noreturn]] void fail(const char* reason)
{
    std::fprintf(stderr, "bare-service: %s\n", reason);
    std::_Exit(2);
}

// Runs one client process. Returns its exit code.
int ask(int socket, long count)
{
    for (long i = 0; i < count; ++i) {
        const question output{};
        answer input;
        if (write(socket, output.data(), output.size()) != ssize_t{output.size()}) return 2;
        if (read(socket, input.data(), input.size()) != ssize_t{input.size()}) return 2;
    }
    return 0;
}

class service
{
  public:
    service(const std::vector<int>& clients, char** addresses) : clients_(clients), port_(open_bare_port())
    {
        if (port_.descriptor < 0) fail("no active port can be opened");
        agent_ = umad_register(port_.descriptor, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
        if (agent_ < 0) fail("cannot register the SA class");
        requests_.resize(clients.size());
        for (size_t i = 0; i < clients.size(); ++i) {
            constexpr uint64_t address_lookup = 0x7FFFC1; // the component mask: ServiceID, ServiceName, ServiceData8
            records::host_record host;
            if (inet_pton(AF_INET, addresses[i], &host.address) != 1) fail("expected an IPv4 address");
            prepare_request(requests_[i], port_, MAD_METHOD_GET, address_lookup, host);
            requests_[i].mad.hdr.transact_id = to_wire(uint64_t{i});
        }
    }

    // Passes `count` answers of the SA to the clients.
    void pass_answers(long count)
    {
        for (long i = 0; i < count; ++i) {
            umad_buffer response;
            int length = MAD_SIZE;
            if (umad_recv(port_.descriptor, &response, &length, timeout_ms) < 0) fail("the SA does not answer");
            const auto client = static_cast<uint32_t>(from_wire(response.mad.hdr.transact_id));
            const answer output{};
            if (write(clients_[client], output.data(), output.size()) != ssize_t{output.size()})
                fail("a client is gone");
        }
    }

    // Passes `total` questions of the clients to the SA.
    void pass_questions(long total)
    {
        const int poller = epoll_create1(EPOLL_CLOEXEC);
        for (uint32_t i = 0; i < clients_.size(); ++i) {
            epoll_event event{.events = EPOLLIN, .data = {.u32 = i}};
            epoll_ctl(poller, EPOLL_CTL_ADD, clients_[i], &event);
        }
        std::array<epoll_event, 64> events;
        for (long passed_count = 0; passed_count < total;) {
            const int count = epoll_wait(poller, events.data(), events.size(), -1);
            for (int i = 0; i < count; ++i)
                passed_count += pass_question(events[static_cast<size_t>(i)].data.u32, poller);
        }
    }

  private:
    // Passes a question of a client to the SA. Returns the number of passed questions: 1, or 0 if the client has ended.
    int pass_question(uint32_t client, int poller)
    {
        question input;
        if (read(clients_[client], input.data(), input.size()) <= 0) {
            epoll_ctl(poller, EPOLL_CTL_DEL, clients_[client], nullptr); // the client has all its answers
            return 0;
        }
        if (umad_send(port_.descriptor, agent_, &requests_[client], MAD_SIZE, timeout_ms, 0) < 0)
            fail("a request was not sent");
        return 1;
    }

    const std::vector<int> clients_;
    const bare_port port_;
    int agent_ = -1;
    std::vector<umad_buffer> requests_; // the request for each client's questions
};

} // namespace

int main(int count, char** arguments)
{
    if (count < 3) fail("expected LOOKUPS ADDRESS...");
    const int processes = count - 2;
    const long process_lookups = std::max(1L, std::atol(arguments[1]) / processes);
    std::vector<int> clients, client_ends;
    for (int i = 0; i < processes; ++i) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) fail("no sockets");
        clients.push_back(pair[0]);
        client_ends.push_back(pair[1]);
    }
    std::vector<pid_t> children;
    for (const int end : client_ends) {
        const pid_t child = fork();
        if (child == 0) {
            for (const int other : client_ends)
                if (other != end) close(other); // the service must notice that another client has ended
            _exit(ask(end, process_lookups));
        }
        children.push_back(child);
    }
    for (const int end : client_ends) close(end);
    service bare_service(clients, arguments + 2);
    const auto begin = std::chrono::steady_clock::now();
    std::thread questions([&] { bare_service.pass_questions(process_lookups * processes); });
    bare_service.pass_answers(process_lookups * processes);
    questions.join();
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    int failures = 0;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        failures += status != 0;
    }
    std::printf("%.0f lookups/s\n", static_cast<double>(process_lookups * processes) / duration.count());
    return failures == 0 ? 0 : 2;
}

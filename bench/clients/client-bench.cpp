// Measures a service on this machine: the speed of cached lookups, one at a time and many at a time; the speed of path
// lookups in the protocol of librdmacm; the memory and the processor time of idle connections; the waiting times of a
// thousand clients that ask at the same time.
//   client-bench
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

#include "cli/acm/wire.h"
#include "client/ats/client.h"
#include "client/descriptor.h"
#include "tools/fabric/process.h"

namespace
{

using clock = std::chrono::steady_clock;

struct exchange {
    size_t question_bytes, answer_bytes;
};
// {"request":"resolve","address":"10.0.0.2","id":12345} with its line end, and a usual answer.
constexpr exchange lookup = {54, 213};
constexpr exchange acm_lookup = {sizeof(acm::resolve_header) + sizeof(acm::entry),
                                 sizeof(acm::resolve_header) + 2 * sizeof(acm::entry)};
constexpr int rounds = 7; // each figure is the median of this many rounds

struct closing {
    void operator()(ats_client_t* client) const { ats_close(client); }
};
using client_ptr = std::unique_ptr<ats_client_t, closing>;

[[noreturn]] void fail(const std::string& text)
{
    throw std::runtime_error(text);
}

const uint32_t target = inet_addr("10.0.0.2");

client_ptr open_client(const std::string& socket)
{
    ats_client_t* client = nullptr;
    if (ats_open(&client, socket.c_str()) != ATS_OK) fail(ats_last_error());
    return client_ptr(client);
}

double seconds_since(clock::time_point begin)
{
    return std::chrono::duration<double>(clock::now() - begin).count();
}

double median(std::vector<double> figures)
{
    std::ranges::sort(figures);
    return figures[figures.size() / 2];
}

// Measures a socket without a service. Returns the exchanges per second with a child process that answers each question
// with fixed bytes.
double ping_pong(int count, const exchange& exchange)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) fail("no socket pair");
    const pid_t child = fork();
    const bool is_child = child == 0;
    const int fd = ends[is_child ? 1 : 0];
    close(ends[is_child ? 0 : 1]);
    std::vector<char> output(is_child ? exchange.answer_bytes : exchange.question_bytes),
        input(is_child ? exchange.question_bytes : exchange.answer_bytes);
    const auto begin = clock::now();
    for (int i = 0; i < count; ++i) {
        if (!is_child) send(fd, output.data(), output.size(), 0);
        if (recv(fd, input.data(), input.size(), MSG_WAITALL) <= 0) break;
        if (is_child) send(fd, output.data(), output.size(), 0);
    }
    if (is_child) _exit(0);
    const double rate = count / seconds_since(begin);
    close(fd);
    waitpid(child, nullptr, 0);
    return rate;
}

double blocking_lookups(const std::string& socket, int count)
{
    const client_ptr client = open_client(socket);
    ats_answer_t answer;
    const auto begin = clock::now();
    for (int i = 0; i < count; ++i)
        if (ats_resolve(client.get(), target, nullptr, &answer) != ATS_OK) fail(answer.reason);
    return count / seconds_since(begin);
}

double submitted_lookups(const std::string& socket, size_t count, size_t window)
{
    const client_ptr client = open_client(socket);
    std::vector<ats_answer_t> answers(window);
    size_t question_count = 0, answer_count = 0;
    const auto begin = clock::now();
    while (answer_count < count) {
        for (; question_count < count && question_count - answer_count < window; ++question_count)
            if (ats_submit_resolve(client.get(), target, nullptr, question_count) != ATS_OK) fail(ats_last_error());
        const size_t new_answers = ats_wait(client.get(), answers.data(), answers.size(), 5000);
        if (new_answers == 0) fail("no answers");
        answer_count += new_answers;
    }
    return static_cast<double>(count) / seconds_since(begin);
}

client::descriptor connected_to(const std::string& path)
{
    client::descriptor connection(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("cannot connect to " + path);
    return connection;
}

// Returns the lookups of paths per second, in the protocol of librdmacm.
double acm_lookups(const std::string& path, int count)
{
    const client::descriptor connection = connected_to(path);
    struct {
        acm::resolve_header header{};
        acm::entry destination{};
    } request;
    request.header.version = acm::protocol_version;
    request.header.opcode = acm::opcode_resolve;
    request.header.length = sizeof request;
    request.destination.flags = acm::flag_destination;
    request.destination.type = acm::type_ipv4;
    std::memcpy(request.destination.content, &target, sizeof target);
    std::array<char, acm_lookup.answer_bytes> answer;
    const auto begin = clock::now();
    for (int i = 0; i < count; ++i) {
        send(connection.get(), &request, sizeof request, 0);
        const ssize_t size = recv(connection.get(), answer.data(), answer.size(), 0);
        if (size != static_cast<ssize_t>(answer.size())) fail("there is no path");
    }
    return count / seconds_since(begin);
}

double resident_mebibytes(pid_t pid)
{
    size_t total = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> total >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

double processor_seconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string word;
    double ticks = 0;
    for (int field = 1; file >> word && field <= 15; ++field)
        if (field >= 14) ticks += std::stod(word);
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct waiting_times {
    double median_ms, longest_ms;
};

// Every client asks `question_count` times. Each client asks again as soon as it has its answer.
waiting_times all_ask(const std::vector<client_ptr>& clients, int question_count)
{
    const int poller = epoll_create1(0);
    std::vector<clock::time_point> begins(clients.size());
    std::vector<int> remaining_counts(clients.size(), question_count);
    std::vector<double> times;
    const auto ask = [&](size_t i) {
        begins[i] = clock::now();
        if (ats_submit_resolve(clients[i].get(), target, nullptr, i) != ATS_OK) fail(ats_last_error());
    };
    for (size_t i = 0; i < clients.size(); ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(poller, EPOLL_CTL_ADD, ats_descriptor(clients[i].get()), &event);
        ask(i);
    }
    const size_t count = clients.size() * static_cast<size_t>(question_count);
    while (times.size() < count) {
        epoll_event events[64];
        const int event_count = epoll_wait(poller, events, 64, 5000);
        if (event_count <= 0) fail("no answers");
        for (int k = 0; k < event_count; ++k) {
            const size_t i = events[k].data.u64;
            ats_answer_t answer;
            if (ats_collect(clients[i].get(), &answer, 1) == 0) continue;
            times.push_back(seconds_since(begins[i]) * 1000);
            if (--remaining_counts[i] > 0) ask(i);
        }
    }
    close(poller);
    const double longest = std::ranges::max(times);
    return {median(std::move(times)), longest};
}

void measure_lookups(const std::string& socket)
{
    constexpr int count = 20'000;
    std::vector<double> bare_rates, blocking_rates, shares, submitted_rates;
    // The measurements alternate, so that other load on the machine affects all of them equally.
    for (int i = 0; i < rounds; ++i) {
        bare_rates.push_back(ping_pong(count, lookup));
        blocking_rates.push_back(blocking_lookups(socket, count));
        shares.push_back(blocking_rates.back() / bare_rates.back());
        submitted_rates.push_back(submitted_lookups(socket, size_t{10} * count, 1000));
    }
    std::printf("cached lookups, submitted  %9.0f /s   one connection, 1000 outstanding\n", median(submitted_rates));
    std::printf("cached lookups, blocking   %9.0f /s   %.2f of a bare ping-pong of the same bytes (%.0f /s)\n",
                median(blocking_rates), median(shares), median(bare_rates));
}

void measure_acm(const std::string& socket)
{
    constexpr int count = 20'000;
    acm_lookups(socket, 1); // fills the cache
    std::vector<double> bare_rates, path_rates, shares;
    for (int i = 0; i < rounds; ++i) {
        bare_rates.push_back(ping_pong(count, acm_lookup));
        path_rates.push_back(acm_lookups(socket, count));
        shares.push_back(path_rates.back() / bare_rates.back());
    }
    std::printf("cached paths, librdmacm    %9.0f /s   %.2f of a bare ping-pong of the same bytes (%.0f /s)\n",
                median(path_rates), median(shares), median(bare_rates));
}

void measure_connections(const std::string& socket, pid_t service)
{
    constexpr size_t connections = 1000;
    const double mebibytes_at_start = resident_mebibytes(service);
    std::vector<client_ptr> clients;
    ats_answer_t answer;
    for (size_t i = 0; i < connections; ++i) {
        clients.push_back(open_client(socket));
        if (ats_resolve(clients.back().get(), target, nullptr, &answer) != ATS_OK) fail(answer.reason);
    }
    const double memory = resident_mebibytes(service) - mebibytes_at_start;
    const double seconds_at_start = processor_seconds(service);
    const auto begin = clock::now();
    sleep(3);
    const double load = (processor_seconds(service) - seconds_at_start) / seconds_since(begin);
    std::printf("1000 connections at rest   %9.1f MiB  %.1f KiB each; %.1f %% of a processor\n", memory,
                memory * 1024 / connections, load * 100);
    const waiting_times times = all_ask(clients, 20);
    std::printf("1000 connections asking    %9.2f ms   median wait; the longest is %.1f times that\n", times.median_ms,
                times.longest_ms / times.median_ms);
}

void run()
{
    const std::string socket = "/tmp/ats-client-bench-" + std::to_string(getpid()) + ".sock";
    fabric_tools::process service(
        {.arguments = {ATS_PROGRAM, "run", "--hosts", "3", "--socket", socket, "--acm-socket", socket + ".acm"},
         .output = socket + ".out"});
    if (!service.wait_line("up; clients are served")) fail("the service did not start: " + service.output());
    ats_answer_t answer;
    if (ats_resolve(open_client(socket).get(), target, nullptr, &answer) != ATS_OK) fail(answer.reason);
    measure_lookups(socket);
    measure_acm(socket + ".acm");
    measure_connections(socket, service.pid());
    service.stop();
    unlink((socket + ".out").c_str());
}

} // namespace

int main()
{
    try {
        run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "client-bench: %s\n", error.what());
        return 1;
    }
}

// Measures the time from the event ClientReregister, by which the SM asks for new registrations, until the SA has
// confirmed the host's record again. One host runs on its real port. This program replaces functions of libibverbs with
// its own, and thus makes the events itself. For comparison, it also measures single round trips to the SA: lookups of
// the host's own address. Measures both COUNT times, and prints the medians.
//   reregistrations OWN_ADDRESS COUNT
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <infiniband/verbs.h>
#include <sys/eventfd.h>
#include <thread>

#include "bench/umad/real-host.h"
#include "host/stack/gsi-service.h"
#include "host/world/resolution.h"
#include "host/world/text.h"

namespace
{

using clock = std::chrono::steady_clock;

// The only HCA that the functions below know; they replace those of libibverbs. Each call of report() causes one event
// ClientReregister.
struct event_source {
    ibv_device device{};
    ibv_context context{};

    event_source() { context.async_fd = eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE); }
    void report() { eventfd_write(context.async_fd, 1); }
} verbs;

} // namespace

ibv_device** ibv_get_device_list(int* count)
{
    *count = 1;
    return new ibv_device* [1] { &verbs.device };
}
void ibv_free_device_list(ibv_device** list)
{
    delete[] list;
}
const char* ibv_get_device_name(ibv_device*)
{
    return "ibsim0"; // the name that ibsim gives the HCA
}
ibv_context* ibv_open_device(ibv_device*)
{
    return &verbs.context;
}
int ibv_close_device(ibv_context*)
{
    return 0;
}
int ibv_get_async_event(ibv_context* context, ibv_async_event* event)
{
    eventfd_t value;
    if (eventfd_read(context->async_fd, &value) != 0) return -1;
    event->event_type = IBV_EVENT_CLIENT_REREGISTER;
    event->element.port_num = 1;
    return 0;
}
void ibv_ack_async_event(ibv_async_event*) {}

namespace
{

[[noreturn]] void fail(const std::string& reason)
{
    std::fprintf(stderr, "reregistrations: %s\n", reason.c_str());
    std::exit(2);
}

double median(std::vector<double> figures)
{
    std::ranges::sort(figures);
    return figures[figures.size() / 2];
}

double milliseconds_since(clock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(clock::now() - begin).count();
}

// Returns how many times the SA has confirmed the host's record.
uint64_t confirmations(kernel::machine& host)
{
    uint64_t count = 0;
    host.enter("bench", [&] {
        for (const auto& each : host.get<stack::gsi>().registrations()) count += each.record.confirmations;
    });
    return count;
}

// Waits until the SA has confirmed the record more than `count` times.
void wait_confirmed(kernel::machine& host, uint64_t count)
{
    constexpr std::chrono::seconds longest(30);
    const auto begin = clock::now();
    while (confirmations(host) <= count) {
        if (clock::now() - begin > longest) fail("the host does not register");
        std::this_thread::yield();
    }
}

double time_registration(kernel::machine& host)
{
    const uint64_t earlier_count = confirmations(host);
    const auto begin = clock::now();
    verbs.report();
    wait_confirmed(host, earlier_count);
    return milliseconds_since(begin);
}

double time_round_trip(kernel::machine& host, uint32_t address)
{
    const auto begin = clock::now();
    if (resolve_address(host, address, world::lookup_mode::sa_only).status != ibat_stat_ok) fail("no answer");
    return milliseconds_since(begin);
}

} // namespace

int main(int count, char** arguments)
{
    const auto address = count == 3 ? world::parse_ipv4(arguments[1]) : std::nullopt;
    const int rounds = count == 3 ? std::atoi(arguments[2]) : 0;
    if (!address || rounds < 1) fail("expected OWN_ADDRESS COUNT");
    const auto started = start_real_host(arguments[1]);
    if (!started) fail(started.error().text);
    kernel::machine& host = started->host->machine();
    wait_confirmed(host, 0);
    std::vector<double> registrations, round_trips;
    // Do not alternate the two measurements. The answer to a lookup also confirms the record. If this confirmation is
    // counted a little late, it looks like the end of the next registration.
    for (int i = 0; i < rounds; ++i) registrations.push_back(time_registration(host));
    for (int i = 0; i < rounds; ++i) round_trips.push_back(time_round_trip(host, *address));
    std::printf("%.3f ms to register, %.3f ms a round trip\n", median(registrations), median(round_trips));
}

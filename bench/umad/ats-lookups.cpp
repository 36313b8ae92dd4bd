// Lookups by a whole host on its real port: IBAT asks ats, which asks the SA, and so back, with as many requests in
// flight as for the yardstick of bare-lookups.
//   ats-lookups OWN_ADDRESS LOOKUPS ADDRESS...
// One request in flight for each of the addresses; two for the same would be joined. Prints the lookups per second.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "host/fabric/umad/umad.h"
#include "host/peers/ibat-exports.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"
#include "host/world/published.h"
#include "host/world/resolution.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace
{

[[noreturn]] void fail(const std::string& why)
{
    std::fprintf(stderr, "ats-lookups: %s\n", why.c_str());
    std::exit(2);
}

// Asks the SA for each address again as soon as it is answered, from the callback.
class asking
{
  public:
    asking(kernel::machine& host, const std::vector<uint32_t>& addresses, uint64_t wanted)
        : refresh_(host, "ibat_refresh_fn"), questions_(addresses.size()), still_to_ask_(static_cast<int64_t>(wanted))
    {
        sema_init(&ended_, 0);
        for (size_t i = 0; i < addresses.size(); ++i) questions_[i] = {this, addresses[i]};
    }

    void run()
    {
        for (question& each : questions_) ask(each);
        for (size_t i = 0; i < questions_.size(); ++i) down(&ended_);
    }

    uint64_t wrong() const { return wrong_; }

  private:
    struct question {
        asking* owner = nullptr;
        uint32_t ip = 0;
    };

    void ask(question& about)
    {
        if (still_to_ask_-- <= 0) return up(&ended_);
        if ((*refresh_)(about.ip, take, &about) != ibat_stat_pending) fail("a request was refused");
    }

    static void take(ibat_stat_t status, ibat_arp_data_t*, void* context)
    {
        auto& answered = *static_cast<question*>(context);
        if (status != ibat_stat_ok) ++answered.owner->wrong_;
        answered.owner->ask(answered);
    }

    const world::published<ibat_refresh_fn_t> refresh_;
    std::vector<question> questions_;
    std::atomic<int64_t> still_to_ask_;
    semaphore ended_;
    std::atomic<uint64_t> wrong_{0};
};

// Empty once the host finds the first of the addresses.
std::string wait_ready(kernel::machine& host, uint32_t first)
{
    constexpr int tries = 20;
    std::string why;
    for (int i = 0; i < tries; ++i) {
        const world::resolution found = world::resolve_address(host, first, world::ask::sa_only);
        if (found.status == ibat_stat_ok) return "";
        why = found.why;
        host.enter("bench", [] { schedule_timeout_uninterruptible(100); });
    }
    return why;
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 4) fail("expected OWN_ADDRESS LOOKUPS ADDRESS...");
    std::vector<uint32_t> addresses;
    for (int i = 3; i < count; ++i) {
        const auto ip = world::parse_ipv4(arguments[i]);
        if (!ip) fail(std::string(arguments[i]) + " is no IPv4 address");
        addresses.push_back(*ip);
    }
    const uint64_t wanted = std::strtoull(arguments[2], nullptr, 10);
    if (wanted < addresses.size()) fail("expected more lookups than addresses");

    const auto exec = exec::make_threaded_executor();
    const umad::opened opened = umad::open(*exec, {});
    if (!opened.fabric) fail(opened.why);
    const world::host_plan plan{.name = "bench", .hcas = {}, .modules = world::usual_modules("bench", arguments[1])};
    world::host host(*exec, opened.fabric->hcas(), plan, world::default_module_folder(), 0);
    if (const ats::result<> loaded = host.load(); !loaded) fail(loaded.error().text);
    if (const std::string why = wait_ready(host.machine(), addresses.front()); !why.empty()) fail(why);

    std::chrono::duration<double> took{};
    uint64_t wrong = 0;
    host.machine().enter("bench", [&] {
        asking questions(host.machine(), addresses, wanted);
        const auto begin = std::chrono::steady_clock::now();
        questions.run();
        took = std::chrono::steady_clock::now() - begin;
        wrong = questions.wrong();
    });
    std::printf("%.0f lookups/s (%llu wrong)\n", static_cast<double>(wanted) / took.count(),
                static_cast<unsigned long long>(wrong));
    return wrong == 0 ? 0 : 1;
}

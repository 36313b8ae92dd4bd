// Measures lookups of a whole host on its real port: IBAT asks ats, ats asks the SA, and the answer comes back the same
// way. bare-lookups is the reference, with the same number of requests in flight.
//   ats-lookups OWN_ADDRESS LOOKUPS [path] ADDRESS...
// With "path", each lookup also asks the SA for the path to the GID of the address. One request is in flight for each
// address, because IBAT joins simultaneous requests for the same address. Prints the lookups per second, the processor
// time per lookup, and the number of failed lookups ("wrong"). The exit code is 0 if all lookups succeeded, 1 if a
// lookup failed, and 2 if the program could not measure.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "bench/umad/real-host.h"
#include "bench/umad/stopwatch.h"
#include "host/peers/ibat-exports.h"
#include "host/peers/ibat-path-exports.h"
#include "host/world/published.h"
#include "host/world/resolution.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace
{

[[noreturn]] void fail(const std::string& reason)
{
    std::fprintf(stderr, "ats-lookups: %s\n", reason.c_str());
    std::exit(2);
}

// Asks the SA for all addresses at the same time. After each answer, the callback asks for the same address again,
// until `count` lookups were sent.
class repeated_lookups
{
  public:
    repeated_lookups(kernel::machine& host, const std::vector<uint32_t>& addresses, uint64_t count, bool asks_for_paths)
        : refresh_(host, "ibat_refresh_fn"), refresh_path_(host, "ibat_refresh_path_fn"),
          asks_for_paths_(asks_for_paths), questions_(addresses.size()), remaining_count_(static_cast<int64_t>(count))
    {
        sema_init(&ended_questions_, 0);
        for (size_t i = 0; i < addresses.size(); ++i) questions_[i] = {this, addresses[i]};
    }

    void run()
    {
        for (question& each : questions_) ask(each);
        for (size_t i = 0; i < questions_.size(); ++i) down(&ended_questions_);
    }

    uint64_t failure_count() const { return failure_count_; }

  private:
    struct question {
        repeated_lookups* owner = nullptr;
        uint32_t ip = 0;
    };

    void ask(question& question)
    {
        if (remaining_count_-- <= 0) return up(&ended_questions_);
        if ((*refresh_)(question.ip, receive, &question) != ibat_stat_pending) fail("a request was refused");
    }

    static void receive(ibat_stat_t status, ibat_arp_data_t* record, void* context)
    {
        auto& answered_question = *static_cast<question*>(context);
        repeated_lookups& self = *answered_question.owner;
        if (status == ibat_stat_ok && self.asks_for_paths_ && record->paths_count == 0) {
            const kq_gid_t gid = record->gid;
            if ((*self.refresh_path_)(&gid, receive, context) != ibat_stat_pending) fail("a path request was refused");
            return;
        }
        if (status != ibat_stat_ok) ++self.failure_count_;
        self.ask(answered_question);
    }

    const world::published<ibat_refresh_fn_t> refresh_;
    const world::published<ibat_refresh_path_fn_t> refresh_path_;
    const bool asks_for_paths_;
    std::vector<question> questions_;
    std::atomic<int64_t> remaining_count_; // lookups that were not sent yet; negative at the end
    semaphore ended_questions_;            // counts the questions that are not asked again
    std::atomic<uint64_t> failure_count_{0};
};

// Waits until the host can resolve the address. On failure, returns the reason of the last try.
ats::result<> wait_ready(kernel::machine& host, uint32_t address)
{
    constexpr int tries = 20;
    std::string reason;
    for (int i = 0; i < tries; ++i) {
        const world::resolution resolution = world::resolve_address(host, address, world::lookup_mode::sa_only);
        if (resolution.status == ibat_stat_ok) return {};
        reason = resolution.reason;
        host.enter("bench", [] { schedule_timeout_uninterruptible(100); });
    }
    return ats::fail(reason);
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 4) fail("expected OWN_ADDRESS LOOKUPS [path] ADDRESS...");
    std::vector<uint32_t> addresses;
    const bool asks_for_paths = std::string(arguments[3]) == "path";
    for (int i = asks_for_paths ? 4 : 3; i < count; ++i) {
        const auto ip = world::parse_ipv4(arguments[i]);
        if (!ip) fail(std::string(arguments[i]) + " is not an IPv4 address");
        addresses.push_back(*ip);
    }
    const uint64_t lookup_count = std::strtoull(arguments[2], nullptr, 10);
    if (addresses.empty() || lookup_count < addresses.size()) fail("expected more lookups than addresses");

    const auto started = start_real_host(arguments[1]);
    if (!started) fail(started.error().text);
    kernel::machine& host = started->host->machine();
    if (const auto ready = wait_ready(host, addresses.front()); !ready) fail(ready.error().text);

    const stopwatch watch;
    uint64_t failure_count = 0;
    host.enter("bench", [&] {
        repeated_lookups lookups(host, addresses, lookup_count, asks_for_paths);
        lookups.run();
        failure_count = lookups.failure_count();
    });
    watch.print(static_cast<double>(lookup_count));
    std::printf(" (%llu wrong)\n", static_cast<unsigned long long>(failure_count));
    return failure_count == 0 ? 0 : 1;
}

// Measures how many requests an SA can serve. Sends the requests of many hosts over one connection, through libibumad.
//   sa-load SM_PID RECORDS PATH_GUID [--windows LIST] [--kinds LIST] [--seconds S] [--aged] [--overload SECONDS]
// First registers RECORDS hosts. With --aged, then deletes all records and registers them again in another order, so
// that the records are scattered over the SA's memory, as after years of changes. Then keeps a window of requests in
// flight, for each kind of request alone and for a mix. With --overload, also sends the mix at fixed rates, below and
// above the best measured rate, for SECONDS each. After each, waits until the SA has recovered. Prints one JSON object
// for each measurement. SM_PID is the process of the SM. The processor time of the SM is also measured, because it
// depends little on other load of the machine. If SM_PID is 0, this time is not measured. PATH_GUID is the port GUID of
// the destination of paths.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>

#include "bench/umad/sa-connection.h"

namespace
{

using namespace sa_load;
using namespace std::chrono_literals;

struct load_plan {
    pid_t sm = 0;
    uint32_t records = 0;
    uint64_t path_guid = 0;
    std::vector<size_t> windows = {1, 4, 16, 64, 256, 1024};
    std::vector<std::string> kinds = {"get-by-gid", "get-by-address", "get-path", "set", "delete", "mixed"};
    double seconds = 2;
    bool is_aged = false;
    double overload_seconds = 0;
};

double processor_seconds(pid_t process)
{
    clockid_t id;
    timespec time{};
    if (clock_getcpuclockid(process, &id) != 0 || clock_gettime(id, &time) != 0)
        throw std::runtime_error("the SM's processor time cannot be read");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double seconds_since(clock::time_point begin)
{
    return std::chrono::duration<double>(clock::now() - begin).count();
}

// Adds up the durations of the parts of a measurement, and the processor time of the SM during these parts. time() runs
// one part.
struct stopwatch {
    pid_t sm;
    double seconds = 0, sm_seconds = 0;

    void time(const std::function<void()>& part)
    {
        const double sm_begin = sm ? processor_seconds(sm) : 0;
        const clock::time_point begin = clock::now();
        part();
        seconds += seconds_since(begin);
        sm_seconds += sm ? processor_seconds(sm) - sm_begin : 0;
    }
};

class load
{
  public:
    explicit load(const load_plan& plan)
        : plan_(plan), destination_{.eui64 = plan.path_guid, .subnet = connection_.gid().subnet}
    {
    }

    void run()
    {
        fill();
        if (plan_.is_aged) scatter_records();
        for (const std::string& kind : plan_.kinds)
            for (const size_t window : plan_.windows) measure(kind, window);
        if (plan_.overload_seconds <= 0) return;
        for (const double share : {0.5, 0.8, 1.2, 2.0}) overload(share);
    }

  private:
    sa_mad_v2_t request(request_kind kind, uint32_t number) const
    {
        return make_request(kind, number, connection_.gid(), destination_);
    }

    uint32_t any_host() { return static_cast<uint32_t>(dice_() % plan_.records); }

    // Sends `count` requests, which `next` makes, with at most `window` of them in flight. Returns when all are
    // answered or lost.
    void exchange(size_t window, uint64_t count, const std::function<sa_mad_v2_t(uint64_t)>& next)
    {
        for (uint64_t sent_count = 0; sent_count < count || connection_.in_flight() > 0;) {
            while (sent_count < count && connection_.in_flight() < window) connection_.send(next(sent_count++));
            if (!connection_.receive(100ms)) connection_.give_up_lost();
        }
    }

    // Registers all hosts. Throws std::runtime_error if a request was lost or refused.
    void fill()
    {
        constexpr size_t window = 16;
        stopwatch watch{plan_.sm};
        watch.time([&] {
            exchange(window, plan_.records,
                     [&](uint64_t i) { return request(request_kind::set, static_cast<uint32_t>(i)); });
        });
        print("fill", window, watch);
        if (connection_.results.answered != plan_.records || connection_.results.has_errors())
            throw std::runtime_error("the SA did not take all records");
    }

    void scatter_records()
    {
        constexpr size_t window = 16;
        std::vector<uint32_t> hosts(plan_.records);
        std::iota(hosts.begin(), hosts.end(), 0);
        for (const request_kind kind : {request_kind::remove, request_kind::set}) {
            std::ranges::shuffle(hosts, dice_);
            exchange(window, plan_.records, [&](uint64_t i) { return request(kind, hosts[i]); });
        }
        if (connection_.results.lost > 0 || connection_.results.has_errors())
            throw std::runtime_error("the SA did not take all records again");
    }

    void measure(const std::string& kind, size_t window)
    {
        connection_.results = {};
        stopwatch watch{plan_.sm};
        if (kind == "delete")
            measure_deletes(window, watch);
        else
            watch.time([&] { keep_busy(window, [&] { return next_of(kind); }); });
        print(kind, window, watch);
    }

    // Makes a request of this kind for a random host. For "mixed", draws one of the kinds that hosts send: half of the
    // requests are checks of the host's own record, 40 percent are lookups of addresses and paths, ten percent are
    // registrations.
    sa_mad_v2_t next_of(const std::string& kind)
    {
        if (const auto single = kind_named(kind)) return request(*single, any_host());
        const uint64_t draw = dice_() % 100;
        if (draw < 50) return request(request_kind::get_by_gid, any_host());
        if (draw < 70) return request(request_kind::get_by_address, any_host());
        if (draw < 90) return request(request_kind::get_path, any_host());
        return request(request_kind::set, any_host());
    }

    void keep_busy(size_t window, const std::function<sa_mad_v2_t()>& next)
    {
        const clock::time_point begin = clock::now();
        do {
            while (connection_.in_flight() < window) connection_.send(next());
            if (!connection_.receive(100ms)) connection_.give_up_lost();
        } while (seconds_since(begin) < plan_.seconds);
        exchange(window, 0, {});
    }

    // Deletes some records and registers them again, repeatedly. Measures only the Deletes. At any time, at most a
    // tenth of the records is missing, or ten records if that is more.
    void measure_deletes(size_t window, stopwatch& watch)
    {
        const uint64_t part = std::min<uint64_t>(plan_.records, std::clamp<uint64_t>(plan_.records / 10, 10, 1000));
        const clock::time_point begin = clock::now();
        do {
            const uint32_t first = any_host();
            const auto some_host = [&](uint64_t i) {
                return static_cast<uint32_t>((first + i * 7919) % plan_.records);
            };
            watch.time([&] {
                exchange(window, part, [&](uint64_t i) { return request(request_kind::remove, some_host(i)); });
            });
            tally deletes = connection_.results;
            exchange(window, part, [&](uint64_t i) { return request(request_kind::set, some_host(i)); });
            if (connection_.results.answered != deletes.answered + part)
                throw std::runtime_error("deleted records do not come back");
            connection_.results = std::move(deletes);
        } while (seconds_since(begin) < 2 * plan_.seconds);
    }

    // Sends the mix at a fixed rate, without waiting for answers, but with at most connection::most_in_flight requests
    // in flight. The rate is `share` times the best rate that print() has seen for the mix. Afterwards, sends one
    // request after another until an answer takes at most about three times as long as before the overload.
    void overload(double share)
    {
        const double usual_ms = probe_ms();
        const double rate = share * best_mixed_rate_;
        connection_.results = {};
        stopwatch watch{plan_.sm};
        const clock::time_point begin = clock::now();
        uint64_t sent_count = 0;
        size_t most_in_flight = 0;
        watch.time([&] {
            while (seconds_since(begin) < plan_.overload_seconds) {
                while (static_cast<double>(sent_count) < rate * seconds_since(begin) &&
                       connection_.in_flight() < connection::most_in_flight) {
                    connection_.send(next_of("mixed"));
                    ++sent_count;
                    while (connection_.receive(0ms)) {}
                }
                most_in_flight = std::max(most_in_flight, connection_.in_flight());
                connection_.receive(1ms);
            }
        });
        const clock::time_point burst_end = clock::now();
        watch.time([&] { exchange(0, 0, {}); });
        const double drained_seconds = seconds_since(burst_end);
        while (probe_ms() > 3 * usual_ms + 1) {}
        begin_result();
        std::printf("\"kind\":\"overload\",\"share\":%.1f,\"rate\":%.0f,\"sent\":%llu,\"most_in_flight\":%zu,"
                    "\"drained_s\":%.3f,\"usual_after_s\":%.3f,",
                    share, rate, static_cast<unsigned long long>(sent_count), most_in_flight, drained_seconds,
                    seconds_since(burst_end));
        print_results(watch);
    }

    // Returns the latency of a single request.
    double probe_ms()
    {
        const clock::time_point begin = clock::now();
        exchange(1, 1, [&](uint64_t) { return request(request_kind::get_by_gid, any_host()); });
        return seconds_since(begin) * 1000;
    }

    // Begins the JSON object of a result.
    void begin_result() const
    {
        std::printf("{\"records\":%u,\"aged\":%s,", plan_.records, plan_.is_aged ? "true" : "false");
    }

    void print(const std::string& kind, size_t window, const stopwatch& watch)
    {
        const double rate = static_cast<double>(connection_.results.answered) / watch.seconds;
        if (kind == "mixed") best_mixed_rate_ = std::max(best_mixed_rate_, rate);
        begin_result();
        std::printf("\"kind\":\"%s\",\"window\":%zu,\"per_second\":%.0f,", kind.c_str(), window, rate);
        print_results(watch);
    }

    void print_results(const stopwatch& watch)
    {
        tally& results = connection_.results;
        const auto answers = static_cast<double>(std::max<uint64_t>(results.answered, 1));
        std::printf("\"seconds\":%.3f,\"sm_us\":%.2f,\"answered\":%llu,\"late\":%llu,\"busy\":%llu,\"refused\":%llu,"
                    "\"lost\":%llu,\"p50_ms\":%.3f,\"p99_ms\":%.3f,\"max_ms\":%.3f}\n",
                    watch.seconds, watch.sm_seconds / answers * 1e6, static_cast<unsigned long long>(results.answered),
                    static_cast<unsigned long long>(results.late), static_cast<unsigned long long>(results.busy),
                    static_cast<unsigned long long>(results.refused), static_cast<unsigned long long>(results.lost),
                    results.percentile_ms(50), results.percentile_ms(99), results.percentile_ms(100));
        std::fflush(stdout);
    }

    const load_plan plan_;
    connection connection_;
    const kq_gid_t destination_;
    std::mt19937_64 dice_{1};
    double best_mixed_rate_ = 0;
};

std::vector<std::string> parts_of(const std::string& list)
{
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
    return parts;
}

load_plan read_plan(int count, char** arguments)
{
    if (count < 4)
        throw std::runtime_error("expected SM_PID RECORDS PATH_GUID [--windows LIST] [--kinds LIST] [--seconds S] "
                                 "[--aged] [--overload SECONDS]");
    load_plan plan;
    plan.sm = std::atoi(arguments[1]);
    plan.records = static_cast<uint32_t>(std::atoi(arguments[2]));
    plan.path_guid = std::strtoull(arguments[3], nullptr, 16);
    for (int i = 4; i < count; ++i) {
        const std::string option = arguments[i];
        if (option == "--aged") {
            plan.is_aged = true;
            continue;
        }
        const std::string value = i + 1 < count ? arguments[++i] : "";
        if (option == "--windows") {
            plan.windows.clear();
            for (const std::string& part : parts_of(value)) plan.windows.push_back(std::stoul(part));
        } else if (option == "--kinds") {
            plan.kinds = parts_of(value);
        } else if (option == "--overload") {
            plan.overload_seconds = std::stod(value);
        } else if (option == "--seconds") {
            plan.seconds = std::stod(value);
        } else {
            throw std::runtime_error("unknown option " + option);
        }
    }
    for (const std::string& kind : plan.kinds)
        if (kind != "mixed" && !kind_named(kind)) throw std::runtime_error("unknown kind of request " + kind);
    if (plan.records < 1 || std::ranges::find(plan.windows, 0u) != plan.windows.end())
        throw std::runtime_error("expected at least one record, and windows of at least one request");
    if (plan.overload_seconds > 0 && std::ranges::find(plan.kinds, "mixed") == plan.kinds.end())
        throw std::runtime_error("--overload needs the best rate of the mix: add 'mixed' to --kinds");
    return plan;
}

} // namespace

int main(int count, char** arguments)
{
    try {
        load(read_plan(count, arguments)).run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sa-load: %s\n", error.what());
        return 2;
    }
}

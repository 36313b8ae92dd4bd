// ats-campaign: tries to break the service, one seed after another, and replays and shortens what broke it.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <sstream>

#include "campaign/runner.h"

namespace
{

using namespace campaign;

constexpr double ticks_per_hour = 3'600'000;

constexpr const char* no_acts = "none"; // some seeds fail without any

constexpr const char* usage =
    "usage: ats-campaign [--seeds N | A-B] [--hours H] [--jobs J]           run seeds; H: until so many hours are "
    "simulated\n"
    "       ats-campaign --seed N [--only A,B,..|none] [--log F] [--capture F]  replay one, or some of its acts\n"
    "       ats-campaign --seed N [--only A,B,..] --minimise                  find the acts that it takes to fail\n";

struct request {
    uint64_t first = 1, last = 30;
    double hours = 0;
    int jobs = 2;
    bool is_replay = false;
    bool minimise = false;
    std::string only;
    options chosen;
};

template <class number_t>
number_t number_in(std::string_view text)
{
    number_t number{};
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end) throw std::invalid_argument("'" + std::string(text) + "' is no number");
    return number;
}

request read_arguments(int argc, char** argv)
{
    request read;
    read.chosen.module_folder = world::default_module_folder();
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--minimise") {
            read.minimise = true;
            continue;
        }
        const char* value = i + 1 < argc ? argv[++i] : nullptr;
        if (!value) throw std::invalid_argument(name + " needs a value, or is unknown");
        if (name == "--seeds") {
            const std::string_view range = value;
            const size_t dash = range.find('-');
            read.first = dash == range.npos ? 1 : number_in<uint64_t>(range.substr(0, dash));
            read.last = number_in<uint64_t>(range.substr(dash == range.npos ? 0 : dash + 1));
            if (read.last < read.first) throw std::invalid_argument("there is no seed in " + std::string(range));
        } else if (name == "--seed") {
            read.first = read.last = number_in<uint64_t>(value);
            read.is_replay = true;
        } else if (name == "--hours") {
            read.hours = number_in<double>(value);
        } else if (name == "--jobs") {
            read.jobs = std::max(1, number_in<int>(value));
        } else if (name == "--only") {
            read.only = value;
        } else if (name == "--log") {
            read.chosen.log_path = value;
        } else if (name == "--capture") {
            read.chosen.capture_path = value;
        } else {
            throw std::invalid_argument(name + " is unknown");
        }
    }
    return read;
}

// As --only takes them.
std::string join(const std::vector<size_t>& numbers)
{
    if (numbers.empty()) return no_acts;
    std::string text;
    for (const size_t number : numbers) text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

std::vector<size_t> acts_chosen(const plan& of, const std::string& only)
{
    if (only.empty()) return all_acts(of);
    if (only == no_acts) return {};
    std::vector<size_t> numbers;
    std::istringstream list(only);
    for (std::string number; std::getline(list, number, ',');) {
        numbers.push_back(number_in<size_t>(number));
        if (numbers.back() >= of.acts.size())
            throw std::invalid_argument("there is no act " + number + ", only " + std::to_string(of.acts.size()));
    }
    return numbers;
}

void complain(const outcome& failed, const std::string& only)
{
    std::printf("FAILED seed %llu: %sreplay: ats-campaign --seed %llu%s --log seed-%llu.log\n",
                static_cast<unsigned long long>(failed.seed), failed.complaint.c_str(),
                static_cast<unsigned long long>(failed.seed), (only.empty() ? "" : " --only " + only).c_str(),
                static_cast<unsigned long long>(failed.seed));
    std::fflush(stdout);
}

void show(const figures& done, double seconds)
{
    const double hours = static_cast<double>(done.simulated_ticks) / ticks_per_hour;
    std::printf(
        "%llu seeds, %.1f simulated hours, %llu acts, %llu faults, %llu datagrams, %llu questions, %llu answers, "
        "%llu truths, digest %016llx, %.1f s\n",
        static_cast<unsigned long long>(done.seeds), hours, static_cast<unsigned long long>(done.acts),
        static_cast<unsigned long long>(done.faults), static_cast<unsigned long long>(done.datagrams),
        static_cast<unsigned long long>(done.questions), static_cast<unsigned long long>(done.answers),
        static_cast<unsigned long long>(done.truths), static_cast<unsigned long long>(done.digest), seconds);
}

int replay(const request& asked)
{
    const plan drawn = draw_plan(asked.first);
    std::vector<size_t> acts = acts_chosen(drawn, asked.only);
    outcome result = run_apart(drawn, acts, asked.chosen);
    if (result.complaint.empty()) {
        show(result.done, 0);
        return 0;
    }
    complain(result, asked.only);
    if (!asked.minimise) return 1;
    acts = shorten(drawn, acts, asked.chosen);
    for (const size_t number : acts) std::printf("  %s\n", describe(drawn, number).c_str());
    complain(run_apart(drawn, acts, asked.chosen), join(acts));
    return 1;
}

int run(const request& asked)
{
    const auto begun = std::chrono::steady_clock::now();
    uint64_t failed = 0;
    const auto enough = [&](uint64_t begun_seeds, const figures& done) {
        const double hours = static_cast<double>(done.simulated_ticks) / ticks_per_hour;
        return begun_seeds > asked.last - asked.first && hours >= asked.hours;
    };
    const figures done = run_many(asked.first, asked.jobs, asked.chosen, enough, [&](const outcome& each) {
        if (each.complaint.empty()) return;
        ++failed;
        complain(each, "");
    });
    show(done, std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    if (failed > 0) std::printf("%llu seeds FAILED\n", static_cast<unsigned long long>(failed));
    return failed > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const request asked = read_arguments(argc, argv);
        return asked.is_replay ? replay(asked) : run(asked);
    } catch (const std::exception& wrong) {
        std::fprintf(stderr, "ats-campaign: %s\n%s", wrong.what(), usage);
        return 2;
    }
}

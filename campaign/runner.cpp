#include "campaign/runner.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <cstring>
#include <map>
#include <numeric>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace campaign
{

namespace
{

constexpr unsigned longest_run_seconds = 900; // of the wall clock

std::atomic<bool> was_interrupted{false};
bool notes_interrupts = false; // instead of dying of them

// A process that runs a plan. What it says goes into memory that both see, and so do its figures.
class child
{
  public:
    child(const plan& of, const std::vector<size_t>& act_numbers, const options& chosen)
        : seed_(of.seed), said_(memfd_create("campaign", 0)),
          done_(static_cast<figures*>(
              mmap(nullptr, sizeof(figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
        if (pid_ == 0) run(of, act_numbers, chosen);
    }

    pid_t pid() const { return pid_; }

    // It has ended with this status.
    outcome end(int status)
    {
        outcome result{.seed = seed_, .complaint = {}, .done = *done_};
        char text[4096];
        const ssize_t size = pread(said_, text, sizeof text, 0);
        if (status != 0) result.complaint.assign(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
        if (status != 0 && result.complaint.empty()) result.complaint = "ended with status " + std::to_string(status);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) result.complaint = "it does not come to an end";
        munmap(done_, sizeof(figures));
        close(said_);
        return result;
    }

  private:
    [[noreturn]] void run(const plan& of, const std::vector<size_t>& act_numbers, const options& chosen)
    {
        if (notes_interrupts) signal(SIGINT, SIG_IGN); // a terminal sends it to all; the parent ends this one
        alarm(longest_run_seconds);
        dup2(said_, STDERR_FILENO);
        try {
            arena in(of, chosen);
            in.run(act_numbers);
            *done_ = in.done;
        } catch (const std::exception& stand) {
            std::fprintf(stderr, "%s\n", stand.what());
            _exit(1);
        }
        _exit(0);
    }

    uint64_t seed_;
    int said_;
    figures* done_;
    pid_t pid_;
};

void add(figures& sum, const figures& one)
{
    static constexpr uint64_t figures::*summed[] = {&figures::seeds,  &figures::simulated_ticks, &figures::acts,
                                                    &figures::faults, &figures::questions,       &figures::answers,
                                                    &figures::truths, &figures::datagrams};
    static_assert(sizeof(figures) == sizeof(uint64_t) * (std::size(summed) + act_kind_count + 1),
                  "every figure but the digest is summed");
    for (const auto member : summed) sum.*member += one.*member;
    for (size_t kind = 0; kind < act_kind_count; ++kind) sum.marks[kind] += one.marks[kind];
    sum.digest ^= one.digest;
}

// Two complaints are of one kind when they differ in numbers only.
std::string kind_of(const std::string& complaint)
{
    std::string kind;
    for (const char c : complaint.substr(0, complaint.find('\n')))
        if (std::isalpha(static_cast<unsigned char>(c))) kind += c;
    return kind;
}

} // namespace

void stop_when_interrupted()
{
    notes_interrupts = true;
    struct sigaction noting {
    };
    noting.sa_handler = [](int) { was_interrupted = true; };
    sigaction(SIGINT, &noting, nullptr); // without SA_RESTART: waitpid() is to end
}

bool is_interrupted()
{
    return was_interrupted;
}

outcome run_apart(const plan& of, const std::vector<size_t>& act_numbers, const options& chosen)
{
    child one(of, act_numbers, chosen);
    int status;
    waitpid(one.pid(), &status, 0);
    return one.end(status);
}

figures run_many(uint64_t first, int jobs, const options& chosen,
                 const std::function<bool(uint64_t, const figures&)>& enough,
                 const std::function<void(const outcome&)>& told)
{
    figures sum;
    std::map<pid_t, child> running;
    for (uint64_t seed = first;; ++seed) {
        while (!running.empty() && (running.size() >= static_cast<size_t>(jobs) || enough(seed - first, sum))) {
            int status;
            const pid_t ended = was_interrupted ? -1 : waitpid(-1, &status, 0);
            if (was_interrupted) {
                for (const auto& [pid, killed] : running) kill(pid, SIGKILL);
                for (const auto& [pid, killed] : running) waitpid(pid, nullptr, 0);
                return sum;
            }
            const auto at = running.find(ended);
            if (at == running.end()) continue;
            const outcome result = at->second.end(status);
            running.erase(at);
            add(sum, result.done);
            if (!result.complaint.empty()) ++sum.seeds;
            told(result);
        }
        if (was_interrupted || enough(seed - first, sum)) return sum;
        const plan drawn = draw_plan(seed);
        child started(drawn, all_acts(drawn), chosen);
        running.emplace(started.pid(), started);
    }
}

std::vector<size_t> all_acts(const plan& of)
{
    std::vector<size_t> numbers(of.acts.size());
    std::iota(numbers.begin(), numbers.end(), size_t{0});
    return numbers;
}

// Leaves out pieces, smaller and smaller ones, as long as the rest still fails.
std::vector<size_t> shorten(const plan& of, std::vector<size_t> failing, const options& chosen)
{
    const std::string kind = kind_of(run_apart(of, failing, chosen).complaint);
    for (size_t piece = std::max<size_t>(failing.size() / 2, 1); piece > 0; piece /= 2) {
        for (size_t at = 0; at < failing.size();) {
            std::vector<size_t> rest = failing;
            const auto begin = rest.begin() + static_cast<ptrdiff_t>(at);
            rest.erase(begin, begin + static_cast<ptrdiff_t>(std::min(piece, rest.size() - at)));
            if (kind_of(run_apart(of, rest, chosen).complaint) == kind)
                failing = std::move(rest);
            else
                at += piece;
        }
    }
    return failing;
}

} // namespace campaign

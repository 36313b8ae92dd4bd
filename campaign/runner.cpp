#include "campaign/runner.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <new>
#include <numeric>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace campaign
{

namespace
{

constexpr unsigned longest_run_seconds = 900; // of the wall clock

std::atomic<bool> was_interrupted{false};
bool stops_when_interrupted = false;

// A child process that runs a plan. The child writes its figures to shared memory, and its complaint to a memory file.
class run_process
{
  public:
    static ats::result<run_process> start(const plan& plan, const std::vector<size_t>& act_numbers,
                                          const run_options& options);

    pid_t pid() const { return pid_; }

    // Call it once, after the child has ended. `status` is the status from waitpid(). Frees the shared memory.
    run_result finish(int status);

  private:
    run_process(uint64_t seed, int output, figures* counts) : seed_(seed), output_(output), counts_(counts) {}
    [[noreturn]] void run(const plan& plan, const std::vector<size_t>& act_numbers, const run_options& options);
    void free();

    uint64_t seed_;
    int output_;      // the memory file; it is the child's standard error
    figures* counts_; // in the memory that the child shares
    pid_t pid_ = -1;
};

ats::result<run_process> run_process::start(const plan& plan, const std::vector<size_t>& act_numbers,
                                            const run_options& options)
{
    const int output = memfd_create("campaign", 0);
    if (output < 0) return ats::fail(std::string("cannot create a memory file: ") + std::strerror(errno));
    void* const memory = mmap(nullptr, sizeof(figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        close(output);
        return ats::fail(std::string("cannot share memory: ") + std::strerror(errno));
    }
    run_process process(plan.seed, output, new (memory) figures);
    std::fflush(nullptr);
    process.pid_ = fork();
    if (process.pid_ == 0) process.run(plan, act_numbers, options);
    if (process.pid_ > 0) return process;
    const std::string reason = std::strerror(errno);
    process.free();
    return ats::fail("cannot start a process: " + reason);
}

void run_process::run(const plan& plan, const std::vector<size_t>& act_numbers, const run_options& options)
{
    // At Ctrl-C, the terminal sends SIGINT to the child, too. The child ignores it, because the parent ends the child
    // with SIGKILL.
    if (stops_when_interrupted) signal(SIGINT, SIG_IGN);
    alarm(longest_run_seconds);
    dup2(output_, STDERR_FILENO);
    try {
        tested_fabric fabric(plan, options);
        if (const ats::result<> result = fabric.run(act_numbers); !result) {
            std::fprintf(stderr, "%s\n", result.error().text.c_str());
            _exit(1);
        }
        *counts_ = fabric.counts;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
        _exit(1);
    }
    _exit(0);
}

run_result run_process::finish(int status)
{
    run_result result{.seed = seed_, .complaint = {}, .counts = *counts_};
    char text[4096];
    const ssize_t size = pread(output_, text, sizeof text, 0);
    if (status != 0) result.complaint.assign(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    if (status != 0 && result.complaint.empty()) result.complaint = "ended with status " + std::to_string(status);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) result.complaint = "it does not come to an end";
    free();
    return result;
}

void run_process::free()
{
    munmap(counts_, sizeof(figures));
    close(output_);
}

void kill_all(const std::map<pid_t, run_process>& processes)
{
    for (const auto& [pid, process] : processes) kill(pid, SIGKILL);
    for (const auto& [pid, process] : processes) waitpid(pid, nullptr, 0);
}

} // namespace

void stop_when_interrupted()
{
    stops_when_interrupted = true;
    struct sigaction action {
    };
    action.sa_handler = [](int) { was_interrupted = true; };
    sigaction(SIGINT, &action, nullptr); // without SA_RESTART, so that the signal ends waitpid()
}

bool is_interrupted()
{
    return was_interrupted;
}

ats::result<run_result> run_in_new_process(const plan& plan, const std::vector<size_t>& act_numbers,
                                           const run_options& options)
{
    ats::result<run_process> process = run_process::start(plan, act_numbers, options);
    if (!process) return ats::pass_on(process);
    int status;
    waitpid(process->pid(), &status, 0);
    return process->finish(status);
}

ats::result<figures> run_many(const seed_series& seeds, const plan_options& plan_options, int jobs,
                              const run_options& options,
                              const std::function<bool(uint64_t, const figures&)>& is_enough,
                              const std::function<void(const run_result&)>& report)
{
    figures sum;
    std::map<pid_t, run_process> running;
    uint64_t start_count = 0;
    for (uint64_t seed = seeds.first;; seed += seeds.step, ++start_count) {
        while (!was_interrupted && !running.empty() &&
               (running.size() >= static_cast<size_t>(jobs) || is_enough(start_count, sum))) {
            int status;
            const auto process = running.find(waitpid(-1, &status, 0));
            if (process == running.end()) continue; // a signal has ended the wait
            const run_result result = process->second.finish(status);
            running.erase(process);
            add(sum, result.counts);
            if (!result.complaint.empty()) ++sum.seeds; // the process counts its seed only if its run passes
            report(result);
        }
        if (was_interrupted) {
            kill_all(running);
            return sum;
        }
        if (is_enough(start_count, sum)) return sum;
        const plan plan = draw_plan(seed, plan_options);
        const ats::result<run_process> process = run_process::start(plan, all_acts(plan), options);
        if (!process) {
            kill_all(running);
            return ats::pass_on(process);
        }
        running.emplace(process->pid(), *process);
    }
}

std::string complaint_kind(const std::string& complaint)
{
    std::string letters;
    for (const char c : complaint.substr(0, complaint.find('\n')))
        if (std::isalpha(static_cast<unsigned char>(c))) letters += c;
    return letters;
}

std::vector<size_t> all_acts(const plan& plan)
{
    std::vector<size_t> numbers(plan.acts.size());
    std::iota(numbers.begin(), numbers.end(), size_t{0});
    return numbers;
}

// Tries to remove parts of the list: first halves, then quarters, and so on, and at last single acts. A part stays
// removed if the other acts still fail in the same way.
ats::result<std::vector<size_t>> shorten(const plan& plan, std::vector<size_t> act_numbers, const run_options& options)
{
    const ats::result<run_result> failure = run_in_new_process(plan, act_numbers, options);
    if (!failure) return ats::pass_on(failure);
    const std::string kind = complaint_kind(failure->complaint);
    for (size_t piece = std::max<size_t>(act_numbers.size() / 2, 1); piece > 0; piece /= 2) {
        for (size_t position = 0; position < act_numbers.size();) {
            std::vector<size_t> rest = act_numbers;
            const auto begin = rest.begin() + static_cast<ptrdiff_t>(position);
            rest.erase(begin, begin + static_cast<ptrdiff_t>(std::min(piece, rest.size() - position)));
            const ats::result<run_result> result = run_in_new_process(plan, rest, options);
            if (!result) return ats::pass_on(result);
            if (complaint_kind(result->complaint) == kind)
                act_numbers = std::move(rest);
            else
                position += piece;
        }
    }
    return act_numbers;
}

} // namespace campaign

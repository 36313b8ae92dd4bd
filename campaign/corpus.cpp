#include "campaign/corpus.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "campaign/edges.h"
#include "campaign/simplify.h"
#include "campaign/summary.h"
#include "console/progress.h"

namespace campaign
{

namespace
{

using clock = std::chrono::steady_clock;

constexpr size_t first_seeds = 10; // with fewer plans in the corpus, run_changed_plans() runs only plain seeds
constexpr int most_changes = 4;    // largest number of changes to one copy of a plan
constexpr size_t most_acts = 3000; // a plan with so many acts gets no more acts: its run would take too long
constexpr const char* no_edges = "these modules count no edges: cmake --preset edges && cmake --build --preset edges, "
                                 "then build/edges/campaign/ats-campaign";

// The elements that runs have taken. An element is an edge of the module's control flow, together with the number of
// binary digits of its count (see edges.h).
class coverage
{
  public:
    // Returns true if at least one element is new.
    bool add(const std::set<uint32_t>& elements)
    {
        const size_t earlier_size = elements_.size();
        for (const uint32_t element : elements) {
            elements_.insert(element);
            edges_.insert(edge_counters::edge_of(element));
        }
        return elements_.size() > earlier_size;
    }
    size_t edges() const { return edges_.size(); }
    size_t elements() const { return elements_.size(); }
    size_t edges_not_in(const coverage& other) const
    {
        return static_cast<size_t>(
            std::ranges::count_if(edges_, [&](uint32_t edge) { return other.edges_.count(edge) == 0; }));
    }
    size_t elements_not_in(const coverage& other) const
    {
        return static_cast<size_t>(
            std::ranges::count_if(elements_, [&](uint32_t element) { return other.elements_.count(element) == 0; }));
    }

  private:
    std::set<uint32_t> edges_, elements_;
};

// Runs plain seeds (plans without changes) for half of the time. Then runs "steered" plans: those of the corpus,
// changed copies of them, and some plain seeds. If a steered plan reaches something new, adds it to the corpus.
class search
{
  public:
    explicit search(const corpus_options& options) : options_(options) {}

    ats::result<bool> carry_out()
    {
        const auto half = options_.time / 2;
        if (const ats::result<> result = run_plain_seeds(half); !result) return ats::pass_on(result);
        if (const ats::result<> result = load(); !result) return ats::pass_on(result);
        if (const ats::result<> result = run_changed_plans(half); !result) return ats::pass_on(result);
        show_result();
        return failures_ == 0;
    }

  private:
    ats::result<> run_plain_seeds(std::chrono::milliseconds time)
    {
        const auto end = clock::now() + time;
        for (uint64_t seed = 1; clock::now() < end; ++seed, ++plain_runs_)
            if (const auto result = run(draw_plan(seed, options_.plan), plain_); !result) return ats::pass_on(result);
        return {};
    }

    // Runs the plans in the folder of the corpus.
    ats::result<> load()
    {
        std::filesystem::create_directories(options_.folder);
        for (const auto& entry : std::filesystem::directory_iterator(options_.folder)) {
            std::ifstream file(entry.path());
            uint64_t seed = 0;
            std::string change_text;
            if (!(file >> seed))
                return ats::fail(ats::error_kind::invalid, entry.path().string() + " does not begin with a seed");
            plan plan = draw_plan(seed, options_.plan);
            while (file >> change_text)
                if (const ats::result<> result = change(plan, change_text); !result)
                    return ats::fail(result.error().kind, entry.path().string() + ": " + result.error().text);
            if (const auto result = run(plan, steered_); !result) return ats::pass_on(result);
            corpus_.push_back(std::move(plan));
            ++loaded_;
        }
        return {};
    }

    ats::result<> run_changed_plans(std::chrono::milliseconds time)
    {
        const auto end = clock::now() + time;
        for (; clock::now() < end; ++steered_runs_) {
            const bool is_plain = corpus_.size() < first_seeds || number_below(8) == 0;
            plan plan = is_plain ? draw_plan(next_seed_++, options_.plan) : corpus_[number_below(corpus_.size())];
            if (!is_plain) vary(plan);
            const ats::result<bool> is_new = run(plan, steered_);
            if (!is_new) return ats::pass_on(is_new);
            if (!*is_new) continue;
            if (const ats::result<> result = store(plan); !result) return result;
            corpus_.push_back(std::move(plan));
        }
        return {};
    }

    // Runs a plan, and adds the elements that the run reached to `coverage`. Prints the complaint of a failed run.
    // Returns true if the run reached something new.
    ats::result<bool> run(const plan& plan, coverage& coverage)
    {
        edges_.clear();
        const ats::result<run_result> result = run_in_new_process(plan, all_acts(plan), options_.run);
        if (!result) return ats::pass_on(result);
        if (edges_.all_edges() == 0) return ats::fail(ats::error_kind::invalid, no_edges);
        progress_.show(std::to_string(plain_runs_) + " plain runs: " + std::to_string(plain_.edges()) + " edges; " +
                       std::to_string(steered_runs_) + " steered ones: " + std::to_string(steered_.edges()));
        if (!result->complaint.empty()) {
            ++failures_;
            progress_.clear();
            show_failure(result->complaint, {.seed = plan.seed,
                                             .options = options_.plan,
                                             .module_folder = options_.run.module_folder,
                                             .selection = selection_of(plan, "")});
        }
        return coverage.add(edges_.elements());
    }

    // Makes some random changes: more acts, or another order of the tasks, or a change from changed_act().
    void vary(plan& plan)
    {
        for (int count = 1 + static_cast<int>(number_below(most_changes)); count > 0; --count) {
            const uint64_t kind = number_below(6);
            std::string text;
            if (kind == 0 && plan.acts.size() < most_acts)
                text = "more=" + std::to_string(1 + number_below(1'000'000));
            else if (kind == 1 || plan.acts.empty())
                text = "order=" + std::to_string(number_below(1'000'000));
            else
                text = changed_act(plan, kind);
            (void)change(plan, text); // a change that does not fit this plan has no effect
        }
    }

    // Returns a change that gives an act another host, the number `a` or `b` of another act, or a begin shortly after
    // that of another act.
    std::string changed_act(const plan& plan, uint64_t kind)
    {
        const std::string act = std::to_string(number_below(plan.acts.size()));
        const auto& other = plan.acts[number_below(plan.acts.size())];
        if (kind == 2) return act + ".host=" + std::to_string(number_below(plan.hosts.size()));
        if (kind == 3) return act + ".a=" + std::to_string(other.a);
        if (kind == 4) return act + ".b=" + std::to_string(other.b);
        return act + ".begin=" + std::to_string(other.begin_tick + number_below(100));
    }

    ats::result<> store(const plan& plan)
    {
        std::ostringstream text;
        text << plan.seed << '\n';
        for (const std::string& each : plan.changes) text << each << '\n';
        char name[32];
        std::snprintf(name, sizeof name, "%016zx", std::hash<std::string>()(text.str()));
        const std::string path = options_.folder + "/" + name;
        if (!(std::ofstream(path) << text.str() << std::flush)) return ats::fail("cannot write " + path);
        return {};
    }

    void show_result()
    {
        progress_.clear();
        std::printf("the module has %zu edges\n", edges_.all_edges());
        std::printf("plain seeds:   %6" PRIu64 " runs reached %zu edges, %zu with their counts\n", plain_runs_,
                    plain_.edges(), plain_.elements());
        std::printf("steered plans: %6" PRIu64 " runs reached %zu edges, %zu with their counts; %zu plans are stored\n",
                    steered_runs_ + loaded_, steered_.edges(), steered_.elements(), corpus_.size());
        std::printf("only steered plans reached %zu edges, %zu with their counts; only plain seeds %zu, %zu\n",
                    steered_.edges_not_in(plain_), steered_.elements_not_in(plain_), plain_.edges_not_in(steered_),
                    plain_.elements_not_in(steered_));
        std::printf("%d runs FAILED\n", failures_);
    }

    uint64_t number_below(uint64_t limit) { return engine_() % limit; }

    const corpus_options& options_;
    edge_counters edges_;
    coverage plain_, steered_;
    std::vector<plan> corpus_;
    std::mt19937_64 engine_{std::random_device()()};
    console::progress progress_;
    uint64_t plain_runs_ = 0, steered_runs_ = 0, loaded_ = 0, next_seed_ = 1;
    int failures_ = 0;
};

} // namespace

ats::result<bool> extend_corpus(const corpus_options& options)
{
    return search(options).carry_out();
}

} // namespace campaign

#include "campaign/simplify.h"

#include <algorithm>
#include <charconv>
#include <string>

namespace campaign
{

namespace
{

constexpr const char* all_changes =
    "hosts=N, hcas=1, ports=1, order=plain, order=N, depth=N, trace=N, more=SEED, ACT.host=N, ACT.a=N, ACT.b=N, "
    "ACT.ticks=N and ACT.begin=N";

// Returns true if the whole text is a number, and stores the number.
template <class number_t>
bool read(std::string_view text, number_t& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Adds the acts of another seed's plan that can occur in this plan, except faults that never heal. The added acts get
// numbers after those of the existing acts.
void add_acts(plan& plan, uint64_t seed)
{
    for (const act& each : draw_plan(seed, plan.options).acts)
        if (each.end_tick < plan.faults_end_tick && may_occur(act_kinds[each.kind], plan.drawn_options) &&
            !is_unhealed(act_kinds[each.kind]))
            plan.acts.push_back(each);
}

bool change_act(const plan& plan, act& act, std::string_view member, std::string_view value)
{
    if (uint64_t tick = 0; member == "begin") {
        const uint64_t ticks = act.end_tick - act.begin_tick;
        if (!read(value, tick) || tick + ticks >= plan.faults_end_tick) return false;
        act.begin_tick = tick;
        act.end_tick = tick + ticks;
        return true;
    }
    if (member == "host") return read(value, act.host);
    if (member == "a") return read(value, act.a);
    if (member == "b") return read(value, act.b);
    uint64_t ticks = 0;
    if (member != "ticks" || !read(value, ticks) || ticks > act.end_tick - act.begin_tick) return false;
    act.end_tick = act.begin_tick + ticks;
    return true;
}

bool change_plan(plan& plan, std::string_view name, std::string_view value)
{
    if (name == "order" && value == "plain") {
        plan.has_plain_order = true;
        plan.priorities.reset();
        return true;
    }
    uint64_t number = 0;
    if (!read(value, number)) return false;
    if (name == "order") {
        plan.order_seed = number;
        return true;
    }
    if (name == "more") {
        add_acts(plan, number);
        return true;
    }
    if (name == "hosts" && number >= 2 && number <= plan.hosts.size()) {
        plan.hosts.resize(number);
        return true;
    }
    if (name == "trace" && number <= highest_trace_level) {
        for (host_shape& host : plan.hosts) {
            host.trace_level = static_cast<int>(number);
            host.has_models = host.has_models && host.trace_level >= debug_trace_level;
        }
        return true;
    }
    if (name == "depth" && plan.priorities && number >= 1 && number <= static_cast<uint64_t>(plan.priorities->depth)) {
        plan.priorities->depth = static_cast<int>(number);
        return true;
    }
    int host_shape::*const member = name == "hcas" ? &host_shape::hcas : &host_shape::ports;
    if ((name != "hcas" && name != "ports") || number != 1) return false;
    for (host_shape& host : plan.hosts) host.*member = 1;
    return true;
}

// Tries changes of a plan one by one. Keeps those after which the acts still fail in the same way.
class simplifier
{
  public:
    simplifier(campaign::plan plan, const std::vector<size_t>& acts, const run_options& options, std::string kind)
        : plan_(std::move(plan)), acts_(acts), options_(options), kind_(std::move(kind))
    {
    }

    // Tries a change. Returns true if it was kept. If a run cannot be started, no further change is tried, and result()
    // returns the error.
    bool keeps(const std::string& text)
    {
        campaign::plan candidate = plan_;
        if (failure_ || !change(candidate, text)) return false;
        const ats::result<run_result> result = run_in_new_process(candidate, acts_, options_);
        if (!result) failure_ = result.error();
        if (!result || complaint_kind(result->complaint) != kind_) return false;
        plan_ = std::move(candidate);
        return true;
    }

    // Tries to lower the number `name` from `present`: tries `numbers` in turn, and keeps the first with which the acts
    // still fail. Stops at the first that is not below `present`.
    void lower(const std::string& name, uint64_t present, std::initializer_list<uint64_t> numbers)
    {
        for (const uint64_t number : numbers)
            if (number >= present || keeps(name + "=" + std::to_string(number))) return;
    }

    void lower_act(size_t number)
    {
        const act act = plan_.acts[number];
        const std::string name = std::to_string(number);
        lower(name + ".host", act.host, {0, 1});
        lower(name + ".a", act.a, {0, 1, act.a % 16, act.a % 256, act.a % 4096, act.a % 65536});
        lower(name + ".b", act.b, {0, 1, act.b % 16, act.b % 256, act.b % 4096, act.b % 65536});
        for (uint64_t ticks = act.end_tick - act.begin_tick; ticks > 1; ticks /= 2)
            if (!keeps(name + ".ticks=" + std::to_string(ticks / 2))) break;
    }

    void lower_all()
    {
        keeps("order=plain");
        if (plan_.priorities) lower("depth", static_cast<uint64_t>(plan_.priorities->depth), {1, 2, 3});
        lower("hosts", plan_.hosts.size(), {2, 3, 4, 6, 8, 12, 16, 24, 32});
        keeps("hcas=1");
        keeps("ports=1");
        for (const size_t number : acts_) lower_act(number);
    }

    ats::result<campaign::plan> result() const
    {
        if (failure_) return tl::make_unexpected(*failure_);
        return plan_;
    }

  private:
    campaign::plan plan_;
    const std::vector<size_t>& acts_;
    const run_options& options_;
    const std::string kind_;
    std::optional<ats::error> failure_;
};

} // namespace

ats::result<> change(plan& plan, std::string_view text)
{
    const size_t equals = std::min(text.find('='), text.size());
    const std::string_view name = text.substr(0, equals), value = text.substr(std::min(equals + 1, text.size()));
    const size_t dot = name.find('.');
    bool is_done = false;
    if (size_t number = 0; dot == name.npos)
        is_done = change_plan(plan, name, value);
    else if (read(name.substr(0, dot), number) && number < plan.acts.size())
        is_done = change_act(plan, plan.acts[number], name.substr(dot + 1), value);
    if (!is_done)
        return ats::fail(ats::error_kind::invalid, "'" + std::string(text) +
                                                       "' does not fit this plan; the changes are " + all_changes +
                                                       ", with numbers up to those of the plan");
    // A change replaces an earlier change with the same name. Each "more" adds acts, so all of them stay.
    if (name != "more")
        std::erase_if(plan.changes, [&](const std::string& each) { return each.substr(0, each.find('=')) == name; });
    plan.changes.emplace_back(text);
    return {};
}

ats::result<> unify_trace_levels(failing_run& run, const std::string& complaint, const run_options& options)
{
    plan candidate = run.plan;
    if (const ats::result<> result = change(candidate, "trace=" + std::to_string(debug_trace_level)); !result)
        return result;
    const ats::result<run_result> result = run_in_new_process(candidate, run.acts, options);
    if (!result) return ats::pass_on(result);
    if (complaint_kind(result->complaint) == complaint_kind(complaint)) run.plan = std::move(candidate);
    return {};
}

ats::result<failing_run> simplify(failing_run run, const run_options& options)
{
    ats::result<std::vector<size_t>> fewest_acts = shorten(run.plan, std::move(run.acts), options);
    if (!fewest_acts) return ats::pass_on(fewest_acts);
    const ats::result<run_result> failure = run_in_new_process(run.plan, *fewest_acts, options);
    if (!failure) return ats::pass_on(failure);
    simplifier simplifier(std::move(run.plan), *fewest_acts, options, complaint_kind(failure->complaint));
    simplifier.lower_all();
    ats::result<plan> simplest = simplifier.result();
    if (!simplest) return ats::pass_on(simplest);
    return failing_run{std::move(*simplest), std::move(*fewest_acts)};
}

} // namespace campaign

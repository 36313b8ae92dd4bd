#include "tools/chaos/sms.h"

#include <algorithm>
#include <csignal>

namespace chaos
{

namespace
{

constexpr int least_priority = 0, middle_priority = 8, most_priority = 15;

// Returns 1 plus the position at which `line` occurs last in `text`, or 0 if it does not occur.
size_t last_place(const std::string& text, const std::string& line)
{
    const size_t place = text.rfind(line);
    return place == std::string::npos ? 0 : place + 1;
}

} // namespace

void sms::start(bool becomes_master)
{
    const bool is_first_free = std::ranges::none_of(members_, [](const member& each) { return each.node == "sm1"; });
    member new_member{
        .program = nullptr, .node = is_first_free ? "sm1" : "sm2", .priority = middle_priority, .kept = {}};
    if (!members_.empty())
        new_member.priority =
            std::clamp(members_[0].priority + (becomes_master ? 1 : -1), least_priority, most_priority);
    new_member.program = net_.start_sm(new_member.node, {.priority = new_member.priority});
    members_.push_back(std::move(new_member));
}

// Returns the state that the SM's log shows last.
sms::state sms::state_of(const member& member)
{
    const std::string output = member.program->output();
    const size_t up_place = last_place(output, "SUBNET UP"),
                 standby_place = last_place(output, "Entering STANDBY state");
    const size_t discovering_place = last_place(output, "Entering DISCOVERING state");
    if (std::max({up_place, standby_place, discovering_place}) == up_place && up_place > 0)
        return last_place(output, "(Link state change)") > up_place ? state::sweeping : state::master;
    return standby_place > discovering_place ? state::standby : state::starting;
}

bool sms::are_quiet() const
{
    const auto count = [&](state counted_state) {
        return std::ranges::count_if(members_, [&](const member& each) { return state_of(each) == counted_state; });
    };
    const auto ended_count =
        std::ranges::count_if(members_, [](const member& each) { return each.program->has_ended(); });
    return ended_count == 0 && count(state::master) == 1 &&
           count(state::master) + count(state::standby) == std::ssize(members_);
}

// Returns the index of the master. If no SM is the master, returns 0.
size_t sms::master() const
{
    for (size_t i = 0; i < members_.size(); ++i)
        if (const state state = state_of(members_[i]); state == state::master || state == state::sweeping) return i;
    return 0;
}

void sms::kill_master()
{
    if (members_.empty()) return;
    const size_t index = master();
    net_.kill(*members_[index].program);
    members_.erase(members_.begin() + static_cast<long>(index));
}

void sms::stop_all()
{
    for (const member& each : members_)
        if (!each.program->stop(std::chrono::seconds(10))) net_.kill(*each.program);
    members_.clear();
}

void sms::kill_all()
{
    while (!members_.empty()) kill_master();
}

void sms::pause()
{
    for (const member& each : members_) each.program->signal(SIGSTOP);
}

void sms::resume()
{
    for (const member& each : members_) each.program->signal(SIGCONT);
}

void sms::keep(const std::string& gid, const std::set<std::string>& records)
{
    for (member& each : members_)
        for (const std::string& record : records) each.kept.insert(gid + " " + record);
}

std::set<std::string> sms::kept_of(const std::string& gid) const
{
    std::set<std::string> records;
    for (const member& each : members_)
        for (const std::string& record : each.kept)
            if (record.starts_with(gid + " ")) records.insert(record.substr(gid.size() + 1));
    return records;
}

} // namespace chaos

#include "cli/server/log-followers.h"

#include "cli/server/answer-lines.h"
#include "cli/server/request-kinds.h"

namespace cli
{

void log_followers::begin(conversation& source, const return_ticket& ticket, kernel::log& log, int level, bool goes_on)
{
    auto is_pump_posted = std::make_shared<std::atomic<bool>>(false);
    std::function<void()> ring;
    if (goes_on)
        ring = [this, number = source.number(), is_pump_posted] {
            if (is_pump_posted->exchange(true)) return;
            loop_.post([this, number] {
                if (conversation* follower = find_(number)) pump(*follower);
            });
        };
    auto stream = std::make_unique<log_stream>(log, level, ring);
    followings_.emplace(source.number(), following{ticket, level, std::move(stream), is_pump_posted});
    pump(source);
}

void log_followers::pump(conversation& source)
{
    const auto entry = followings_.find(source.number());
    if (entry == followings_.end()) return;
    following& following = entry->second;
    following.is_pump_posted->store(false); // before the lines are read: a line that comes later posts again
    const auto has_room = [&] { return !source.is_congested() && !source.is_ending(); };
    const auto send = [&](const nlohmann::json& line) { source.send(line_of(line, following.ticket.id)); };
    if (!following.stream->pump(has_room, send)) end(source);
}

void log_followers::end(conversation& source)
{
    const auto entry = followings_.find(source.number());
    if (entry == followings_.end()) return;
    const return_ticket ticket = entry->second.ticket;
    followings_.erase(entry);
    finish_(ticket, line_of({{"end", true}}, ticket.id));
}

void log_followers::end_refused(const access_rules& access)
{
    std::vector<conversation*> refused;
    for (const auto& [number, following] : followings_) {
        conversation* const follower = find_(number);
        if (follower && refusal_of(access, follower->peer(), {{"level", following.level}}, "log"))
            refused.push_back(follower);
    }
    for (conversation* follower : refused) end(*follower);
}

} // namespace cli

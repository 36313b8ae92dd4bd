#include "cli/server/log-followers.h"

#include "cli/server/answer-lines.h"
#include "cli/server/request-access.h"

namespace cli
{

void log_followers::begin(conversation& source, const return_ticket& ticket, kernel::log& log, int level,
                          bool is_followed)
{
    auto is_pump_posted = std::make_shared<std::atomic<bool>>(false);
    std::function<void()> post_pump;
    if (is_followed)
        post_pump = [this, number = source.number(), is_pump_posted] {
            if (is_pump_posted->exchange(true)) return;
            loop_.post([this, number] {
                if (conversation* reader = find_(number)) pump(*reader);
            });
        };
    auto stream = std::make_unique<log_stream>(log, level, post_pump);
    followers_.emplace(source.number(), follower{ticket, level, std::move(stream), is_pump_posted});
    pump(source);
}

void log_followers::pump(conversation& source)
{
    const auto entry = followers_.find(source.number());
    if (entry == followers_.end()) return;
    follower& reader = entry->second;
    // Clear this flag before the lines are read. A line that is added during the reading then posts another pump().
    reader.is_pump_posted->store(false);
    const auto has_room = [&] { return !source.is_congested() && !source.is_ending(); };
    const auto send = [&](const nlohmann::json& line) { source.send(line_of(line, reader.ticket.id)); };
    if (!reader.stream->pump(has_room, send)) end(source);
}

void log_followers::end(conversation& source)
{
    const auto entry = followers_.find(source.number());
    if (entry == followers_.end()) return;
    const return_ticket ticket = entry->second.ticket;
    followers_.erase(entry);
    finish_(ticket, line_of({{"end", true}}, ticket.id));
}

void log_followers::end_refused(const access_rules& access)
{
    const request_type& log = *find_type("log", {});
    std::vector<conversation*> conversations;
    for (const auto& [number, reader] : followers_) {
        conversation* const source = find_(number);
        if (source && refusal_of(access, source->peer(), log, {{"level", reader.level}}))
            conversations.push_back(source);
    }
    for (conversation* source : conversations) end(*source);
}

} // namespace cli

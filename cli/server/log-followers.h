// The connections that read a host's log. Lives in the event loop's thread. Only the notice of a new log line comes
// from another thread.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>

#include "cli/server/conversation.h"
#include "cli/server/event-loop.h"
#include "cli/server/log-stream.h"
#include "cli/server/request.h"

namespace cli
{

class log_followers
{
  public:
    // `find` returns the conversation with that number, or null. `finish` sends the last line of an answer.
    using find_conversation = std::function<conversation*(uint64_t number)>;
    using finish_answer = std::function<void(const return_ticket& ticket, const std::string& line)>;
    log_followers(event_loop& loop, find_conversation find, finish_answer finish)
        : loop_(loop), find_(std::move(find)), finish_(std::move(finish))
    {
    }

    // Sends the lines of `log` up to `level`. With `goes_on`, also sends all later lines. A connection follows at most
    // one log: call end() first.
    void begin(conversation& source, const return_ticket& ticket, kernel::log& log, int level, bool goes_on);

    // Sends as many lines as the client can accept now.
    void pump(conversation& source);

    // Ends the answer, if this connection follows a log.
    void end(conversation& source);

    // Ends the logs whose followers are no longer allowed to read them.
    void end_refused(const access_rules& access);

    bool contains(const conversation& source) const { return followings_.contains(source.number()); }
    void forget(uint64_t number) { followings_.erase(number); }

  private:
    struct following {
        return_ticket ticket;
        int level;
        std::unique_ptr<log_stream> stream;
        std::shared_ptr<std::atomic<bool>> is_pump_posted;
    };

    event_loop& loop_;
    const find_conversation find_;
    const finish_answer finish_;
    std::map<uint64_t, following> followings_; // by conversation
};

} // namespace cli

// The connections that read the log of a host ("log" requests). All calls are made in the event loop's thread. A thread
// that adds a line to a log only posts a pump() to the loop.
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
    // `find` returns the conversation with a number, or null if it has ended. `finish` sends the last line of an answer
    // and counts the request as answered.
    using find_conversation = std::function<conversation*(uint64_t number)>;
    using finish_answer = std::function<void(const return_ticket& ticket, const std::string& line)>;
    log_followers(event_loop& loop, find_conversation find, finish_answer finish)
        : loop_(loop), find_(std::move(find)), finish_(std::move(finish))
    {
    }

    // Answers a "log" request: sends the lines of `log` up to the trace level `level`. If `is_followed`, goes on with
    // later lines. A connection reads at most one log: call end() for the earlier one first.
    void begin(conversation& source, const return_ticket& ticket, kernel::log& log, int level, bool is_followed);

    // Sends lines until the connection is congested or the log has no more lines. Ends the answer after the last line
    // of a log that is not followed. Does nothing if the connection reads no log.
    void pump(conversation& source);

    // Sends the end of the answer. Does nothing if the connection reads no log.
    void end(conversation& source);

    // Ends the answers of all connections whose users may not read the log under the new rules.
    void end_refused(const access_rules& access);

    // Returns true if the connection reads a log.
    bool contains(const conversation& source) const { return followers_.contains(source.number()); }

    // Forgets a connection that has ended.
    void forget(uint64_t number) { followers_.erase(number); }

  private:
    struct follower {
        return_ticket ticket;
        int level;
        std::unique_ptr<log_stream> stream;
        std::shared_ptr<std::atomic<bool>> is_pump_posted; // shared with the threads that add lines to the log
    };

    event_loop& loop_;
    const find_conversation find_;
    const finish_answer finish_;
    std::map<uint64_t, follower> followers_; // by the number of the conversation
};

} // namespace cli

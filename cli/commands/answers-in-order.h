// Asks a service many questions over one connection, several at a time, and returns the answers in the order of the
// questions. A silent SA then delays the answers together, not one after the other.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "cli/commands/service-client.h"

namespace cli
{

// Returns the answer {"error", "exit_code"} of a question that is refused with this error.
json refusal_answer(const ats::error& error);

class answers_in_order
{
  public:
    // Makes the request for a question. The questions are numbers from 0. If a question is wrong, returns a refusal
    // {"error", "exit_code"} instead, which becomes its answer.
    using request_maker = std::function<json(size_t question)>;

    // `service` must outlive this object, and has no other requests meanwhile.
    answers_in_order(service_client& service, size_t question_count, request_maker request_of);

    // Returns true if next() does not have to wait.
    bool is_next_ready() const { return answers_.contains(next_); }

    // Waits for the answer to the next question. The answer is {"error", "exit_code"} if the question was refused.
    // Fails like service_client::receive(). There must be a next question.
    ats::result<json> next();

  private:
    bool may_send() const;
    void send_next();
    void take(const service_client::reply& reply);

    service_client& service_;
    const size_t question_count_;
    const request_maker request_of_;
    size_t next_ = 0;                           // the question whose answer next() returns
    size_t unasked_ = 0;                        // the first question that was never sent
    std::map<uint64_t, size_t> open_questions_; // by the id of the request
    size_t most_open_;                          // the number of open questions that the service accepts
    std::set<size_t> postponed_;                // questions to send again
    std::map<size_t, json> answers_;            // by question; not yet returned by next()
    std::optional<ats::error> send_error_;      // after this, nothing more is sent
};

} // namespace cli

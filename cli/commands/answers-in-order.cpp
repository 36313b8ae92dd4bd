#include "cli/commands/answers-in-order.h"

#include "console/errors.h"

namespace cli
{

namespace
{

// A host asks the SA about sixteen addresses at a time. With more open questions, the service always has the next ones,
// and their answers stay below its limit for unread bytes.
constexpr size_t most_open_questions = 64;

// While the first of many answers is late, the answers to later questions wait in memory.
constexpr size_t most_waiting_answers = 4096;

// Returns true if the service cannot take the question now, for example because its user has too many open requests.
bool is_limit_reached(const json& answer)
{
    return answer.contains("error") &&
           answer.value("exit_code", int{console::exit_failed}) == console::exit_unreachable;
}

} // namespace

answers_in_order::answers_in_order(service_client& service, size_t question_count, request_maker request_of)
    : service_(service), question_count_(question_count), request_of_(std::move(request_of)),
      most_open_(most_open_questions)
{
}

json refusal_answer(const ats::error& error)
{
    return {{"error", error.text}, {"exit_code", int{console::exit_code_of(error.kind)}}};
}

ats::result<json> answers_in_order::next()
{
    while (!is_next_ready()) {
        while (may_send()) send_next();
        if (is_next_ready()) break;
        if (open_questions_.empty()) return tl::make_unexpected(*send_error_);
        const ats::result<service_client::reply> reply = service_.receive();
        if (!reply) return ats::pass_on(reply);
        take(*reply);
    }
    return std::move(answers_.extract(next_++).mapped());
}

bool answers_in_order::may_send() const
{
    if (send_error_ || open_questions_.size() >= most_open_) return false;
    if (!postponed_.empty()) return true;
    return unasked_ < question_count_ && answers_.size() < most_waiting_answers;
}

void answers_in_order::send_next()
{
    const size_t question = postponed_.empty() ? unasked_++ : postponed_.extract(postponed_.begin()).value();
    json request = request_of_(question);
    if (request.contains("error")) {
        answers_.emplace(question, std::move(request));
        return;
    }
    const ats::result<uint64_t> id = service_.send(std::move(request));
    if (id)
        open_questions_.emplace(*id, question);
    else if (id.error().kind == ats::error_kind::invalid)
        answers_.emplace(question, refusal_answer(id.error()));
    else
        send_error_ = id.error();
}

// If the service refuses a question because of a limit that this client's other open questions contribute to, the
// question is asked again after one of them was answered. A question that is refused alone is really refused.
void answers_in_order::take(const service_client::reply& reply)
{
    const auto entry = open_questions_.extract(reply.id);
    if (entry.empty()) return; // a second answer to the same request
    const size_t question = entry.mapped();
    if (is_limit_reached(reply.answer) && !open_questions_.empty()) {
        most_open_ = open_questions_.size();
        postponed_.insert(question);
    } else {
        answers_.emplace(question, reply.answer);
    }
}

} // namespace cli

#include "client/client.h"

#include <poll.h>

#include "client/last-error.h"

namespace client
{

namespace
{

constexpr size_t most_unread_lines = 100'000;         // lines of one answer that the program has not fetched
constexpr size_t most_unsent_bytes = size_t{1} << 20; // bytes of questions that the service has not read

// Returns the answer for a question that has failed.
ats_answer_t failure(ats_status_t status, std::string_view reason)
{
    ats_answer_t answer{};
    answer.status = status;
    answer.verified = -1;
    set_reason(answer, reason);
    return answer;
}

constexpr auto longest_wait = std::chrono::hours(1); // a wait until time_point::max() may overflow

constexpr const char* no_answer = "the service gave no answer in time";
constexpr const char* lost_service = "the service went away before it answered";

} // namespace

// ---- sending ----

// Sends the hello on a new connection. Does not report a failure: if the service has already closed the connection, the
// next send or receive finds this out.
void client::greet()
{
    wake_up_.watch_socket(connection_.fd());
    is_greeted_ = false;
    connection_.send(hello_line());
}

// Connects if there is no connection. While the service accepts no connections, tries again until `deadline`; releases
// the mutex during the pauses.
ats_status_t client::connect(lock& guard, clock::time_point deadline)
{
    constexpr int pause_milliseconds = 5;
    while (!connection_.is_open()) {
        std::string error;
        switch (connection_.open(path_, error)) {
        case connection::attempt::connected:
            greet();
            break;
        case connection::attempt::busy:
            if (clock::now() >= deadline) return failed(ATS_NO_ANSWER, "the service takes no connections");
            guard.unlock();
            poll(nullptr, 0, pause_milliseconds);
            guard.lock();
            break;
        case connection::attempt::nobody:
            return failed(ATS_NOT_CONNECTED, error);
        case connection::attempt::foreign:
            return failed(ATS_REFUSED, error);
        case connection::attempt::failed:
            return failed(ATS_NO_MEMORY, error);
        }
    }
    return ATS_OK;
}

// Waits until the unsent output is below its limit. The output grows while the service does not read the questions.
ats_status_t client::drain_output(lock& guard, clock::time_point deadline)
{
    const auto has_room = [&] { return connection_.unsent_bytes() < most_unsent_bytes; };
    if (wait_until(guard, deadline, has_room)) return ATS_OK;
    return failed(ATS_NO_ANSWER, "the service does not read its questions");
}

// Sends a question and adds it to the open questions. Returns ATS_OK if the question is in open_questions_ or has
// already got an answer. Returns an error if there is no connection, or if the service does not read until `deadline`;
// the question then gets no answer.
ats_status_t client::send(lock& guard, uint64_t id, question question, clock::time_point deadline)
{
    if (const ats_status_t status = connect(guard, deadline); status != ATS_OK) return status;
    if (const ats_status_t status = drain_output(guard, deadline); status != ATS_OK) return status;
    const std::string line = question.line;
    if (question.kind == question_kind::submission) ++submissions_;
    open_questions_.add(id, std::move(question));
    if (connection_.is_open() && connection_.send(line)) return ATS_OK;
    if (is_receiving_) {
        connection_.hang_up(); // makes the receiving thread reconnect
    } else if (connection_.is_open()) {
        connection_.wait(clock::time_point::min(), false); // the service may have sent why it closes the connection
        take_input(connection::outcome::gone);
    } else {
        reconnect();
    }
    return ATS_OK;
}

// ---- receiving ----

// Waits until the condition is true, and receives meanwhile if no other thread does. Returns false at `deadline`. Also
// ends the open questions whose own deadline passes meanwhile. The caller holds the mutex; the call releases the mutex
// while it waits.
template <class condition_t>
bool client::wait_until(lock& guard, clock::time_point deadline, condition_t is_reached)
{
    while (!is_reached()) {
        if (clock::now() >= deadline) return false;
        const auto wait_end = std::min(deadline, open_questions_.first_deadline());
        if (is_receiving_ || !connection_.is_open())
            progress_.wait_until(guard, std::min(wait_end, clock::now() + longest_wait));
        else
            receive(guard, wait_end);
        end_overdue();
    }
    return true;
}

// Waits for input until `deadline`, and processes the input. Only one thread at a time is in this function. The caller
// holds the mutex; the call releases the mutex while it waits.
void client::receive(lock& guard, clock::time_point deadline)
{
    const bool until_writable = connection_.unsent_bytes() > 0;
    is_receiving_ = true;
    guard.unlock();
    connection::outcome outcome = connection_.wait(deadline, until_writable);
    guard.lock();
    is_receiving_ = false;
    if (!connection_.flush()) outcome = connection::outcome::gone;
    take_input(outcome);
    watch();
    progress_.notify_all();
}

// Processes the bytes that connection_.wait() has received. `outcome` is the result of wait(). After `gone`,
// reconnects.
void client::take_input(connection::outcome outcome)
{
    connection_.take_bytes();
    std::string_view line;
    while (connection_.is_open() && connection_.next_line(line)) {
        if (is_greeted_)
            take_line(line);
        else
            take_hello(line);
    }
    if (!connection_.is_open()) return;
    if (connection_.has_endless_line()) return reject_service("the service sends a line without an end");
    if (outcome == connection::outcome::gone) reconnect();
}

// Processes the input that has arrived, unless another thread receives. Reads at most `most_pieces` times, so that the
// call returns soon even if the service sends without end. Then ends the overdue questions.
void client::take_input_without_waiting()
{
    constexpr int most_pieces = 16;
    for (int i = 0; i < most_pieces && connection_.is_open() && !is_receiving_; ++i) {
        connection::outcome outcome = connection_.wait(clock::time_point::min(), false);
        if (!connection_.flush()) outcome = connection::outcome::gone;
        take_input(outcome);
        if (outcome != connection::outcome::input) break;
    }
    end_overdue();
}

void client::take_hello(std::string_view line)
{
    const std::string refusal = hello_refusal(line);
    is_greeted_ = refusal.empty();
    if (is_greeted_) return;
    close_connection();
    end_all(ATS_REFUSED, refusal);
}

void client::take_line(std::string_view line)
{
    const reply reply = read_reply(line);
    if (!reply.is_valid)
        return reject_service("the program that listens on " + path_ + " does not use the protocol of ats");
    if (!reply.has_id) return;
    const question* question = open_questions_.find(reply.id);
    if (!question) return; // the question has already ended, for example at its deadline
    if (question->kind == question_kind::request)
        take_request_line(line);
    else
        end(reply.id, reply.answer);
}

// Closes the connection and ends all open questions, because the service has broken the protocol.
void client::reject_service(const std::string& reason)
{
    close_connection();
    end_all(ATS_INVALID, reason);
}

void client::take_request_line(std::string_view line)
{
    request_line& added = request_lines_.emplace_back();
    const reply reply = read_request_line(line, added.text);
    added.id = reply.id;
    if (reply.is_last) {
        open_questions_.take(reply.id);
        request_ids_.erase(reply.id);
    } else if (request_lines_.size() == most_unread_lines) {
        end(reply.id, failure(ATS_NO_MEMORY, "the lines of the answer were not read in time"));
    }
}

// ---- connections that break ----

// Removes the socket from the epoll instance before closing the socket. If a child of fork() still has the socket, the
// close alone does not remove the socket from the epoll instance, and the program's descriptor stays readable.
void client::close_connection()
{
    if (connection_.is_open()) wake_up_.forget_socket(connection_.fd());
    connection_.close();
}

// Closes the connection. If there are open questions, connects again and repeats each question that was not repeated
// before. Ends requests, and questions that it cannot repeat, with ATS_NOT_CONNECTED.
void client::reconnect()
{
    close_connection();
    if (open_questions_.is_empty()) return;
    std::string error;
    const bool is_connected = connection_.open(path_, error) == connection::attempt::connected;
    if (is_connected) greet();
    for (const uint64_t id : open_questions_.all()) {
        question& question = *open_questions_.find(id);
        const bool may_resend = is_connected && !question.was_resent && question.kind != question_kind::request;
        if (may_resend && connection_.send(question.line))
            question.was_resent = true;
        else
            end(id, failure(ATS_NOT_CONNECTED, lost_service));
    }
}

void client::close_in_child()
{
    connection_.close_socket();
    wake_up_.close();
}

// ---- ends of questions ----

void client::end_overdue()
{
    for (const uint64_t id : open_questions_.overdue(clock::now())) end(id, failure(ATS_NO_ANSWER, no_answer));
}

void client::end_all(ats_status_t status, const std::string& reason)
{
    for (const uint64_t id : open_questions_.all()) end(id, failure(status, reason));
}

// Removes an open question, and stores its answer for the caller that needs it. Does nothing if the question has ended.
void client::end(uint64_t id, const ats_answer_t& answer)
{
    const std::optional<question> question = open_questions_.take(id);
    if (!question) return;
    switch (question->kind) {
    case question_kind::blocking_call:
        blocking_answers_[id] = answer;
        break;
    case question_kind::submission:
        --submissions_;
        completions_.push_back(answer);
        completions_.back().tag = question->tag;
        break;
    case question_kind::request:
        request_ids_.erase(id);
        if (request_error_.status == ATS_OK) request_error_ = answer;
        break;
    }
}

// ---- the calls ----

ats_answer_t client::ask(const ats_options_t& options, const std::string& body)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(options.timeout_ms);
    lock guard(mutex_);
    const uint64_t id = new_id();
    const ats_status_t status =
        send(guard, id, {question_kind::blocking_call, 0, deadline, line_of(body, id), false}, deadline);
    if (status != ATS_OK) return failure(status, last_error());
    wait_until(guard, deadline, [&] { return blocking_answers_.contains(id); });
    end(id, failure(ATS_NO_ANSWER, no_answer)); // has an effect only if there is no answer yet
    const ats_answer_t answer = blocking_answers_.extract(id).mapped();
    watch();
    return answer;
}

ats_status_t client::submit(const ats_options_t& options, uint64_t tag, const std::string& body)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(options.timeout_ms);
    lock guard(mutex_);
    const uint64_t id = new_id();
    const ats_status_t status =
        send(guard, id, {question_kind::submission, tag, deadline, line_of(body, id), false}, deadline);
    watch();
    return status;
}

size_t client::collect(ats_answer_t* answers, size_t capacity)
{
    const lock guard(mutex_);
    take_input_without_waiting();
    return hand_out(answers, capacity);
}

size_t client::wait(ats_answer_t* answers, size_t capacity, clock::time_point deadline)
{
    lock guard(mutex_);
    take_input_without_waiting();
    wait_until(guard, deadline, [&] { return !completions_.empty() || submissions_ == 0; });
    return hand_out(answers, capacity);
}

// Moves up to `capacity` completions to `answers`. Returns their number.
size_t client::hand_out(ats_answer_t* answers, size_t capacity)
{
    const size_t count = std::min(capacity, completions_.size());
    const auto end = completions_.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(completions_.begin(), end, answers);
    completions_.erase(completions_.begin(), end);
    watch();
    return count;
}

// Tells wake_up_ for which events the program's descriptor must become readable now.
void client::watch()
{
    wake_up_.set(connection_.fd(), connection_.unsent_bytes() > 0, !completions_.empty(),
                 open_questions_.first_deadline());
}

ats_status_t client::begin_request(const std::string& body, clock::time_point deadline)
{
    {
        const lock guard(mutex_);
        forget_requests();
    }
    uint64_t id = 0;
    return add_request(body, deadline, id);
}

// A request is never repeated on a second connection, because it may be an order. Therefore this call first processes
// the input: if the service has closed the idle connection, the request is sent on a new connection.
ats_status_t client::add_request(const std::string& body, clock::time_point deadline, uint64_t& id)
{
    lock guard(mutex_);
    take_input_without_waiting();
    id = new_id();
    request_ids_.insert(id);
    question question{question_kind::request, 0, clock::time_point::max(), line_of(body, id), false};
    const ats_status_t status = send(guard, id, std::move(question), deadline);
    if (status != ATS_OK) request_ids_.erase(id);
    return status;
}

// Ends all requests. If the service answers one of them later, the client ignores the answer.
void client::forget_requests()
{
    for (const uint64_t id : request_ids_) open_questions_.take(id);
    request_ids_.clear();
    request_lines_.clear();
    request_error_ = {};
}

ats_status_t client::request(const std::string& body, clock::time_point deadline, std::string& line)
{
    {
        lock guard(mutex_);
        const auto is_our_turn = [&] { return !is_in_request_; };
        while (!progress_.wait_until(guard, std::min(deadline, clock::now() + longest_wait), is_our_turn))
            if (clock::now() >= deadline) return failed(ATS_NO_ANSWER, no_answer);
        is_in_request_ = true;
    }
    const std::unique_ptr<client, void (*)(client*)> turn(this, [](client* self) { self->end_turn(); });
    if (const ats_status_t status = begin_request(body, deadline); status != ATS_OK) return status;
    request_line answer;
    const ats_status_t status = next_request_line(deadline, answer);
    line = std::move(answer.text);
    return status;
}

// Lets the next thread in request() send its request.
void client::end_turn()
{
    const lock guard(mutex_);
    forget_requests();
    is_in_request_ = false;
    progress_.notify_all();
}

ats_status_t client::next_request_line(clock::time_point deadline, request_line& line)
{
    lock guard(mutex_);
    const auto is_over = [&] { return request_ids_.empty() || request_error_.status != ATS_OK; };
    wait_until(guard, deadline, [&] { return !request_lines_.empty() || is_over(); });
    if (!request_lines_.empty()) {
        line = std::move(request_lines_.front());
        request_lines_.pop_front();
        return ATS_OK;
    }
    if (!is_over()) return failed(ATS_NO_ANSWER, no_answer);
    if (request_error_.status != ATS_OK) return failed(request_error_.status, request_error_.reason);
    return failed(ATS_NOT_FOUND, "the answer has no further line");
}

} // namespace client

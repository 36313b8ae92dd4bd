#include "client/client.h"

#include <poll.h>

#include "client/last-error.h"

namespace client
{

namespace
{

constexpr size_t most_unread_lines = 100'000;         // of an answer that the program does not read
constexpr size_t most_unsent_bytes = size_t{1} << 20; // of questions that the service does not read

ats_answer_t ended(ats_status_t status, std::string_view reason)
{
    ats_answer_t answer{};
    answer.status = status;
    answer.verified = -1;
    set_reason(answer, reason);
    return answer;
}

constexpr const char* no_answer = "the service gave no answer in time";
constexpr const char* went_away = "the service went away before it answered";

} // namespace

// ---- sending ----

// Starts the conversation on a new connection. If the service is already gone, the next call notices it.
void client::greet()
{
    wake_up_.watch_socket(connection_.fd());
    is_greeted_ = false;
    connection_.send(hello_line());
}

// Connects if there is no connection. While the service accepts no connections, waits without the mutex.
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

// Waits while the service does not read the data sent before.
ats_status_t client::drain_output(lock& guard, clock::time_point deadline)
{
    const auto has_room = [&] { return connection_.unsent() < most_unsent_bytes; };
    if (wait_until(guard, deadline, has_room)) return ATS_OK;
    return failed(ATS_NO_ANSWER, "the service does not read its questions");
}

// Sends a question and marks it as outstanding. Gives up at `deadline` if the service does not read.
ats_status_t client::send(lock& guard, uint64_t id, question question, clock::time_point deadline)
{
    if (const ats_status_t status = connect(guard, deadline); status != ATS_OK) return status;
    if (const ats_status_t status = drain_output(guard, deadline); status != ATS_OK) return status;
    const std::string line = question.line;
    if (question.kind == asker::submission) ++submissions_;
    outstanding_.add(id, std::move(question));
    if (connection_.is_open() && connection_.send(line)) return ATS_OK;
    if (is_receiving_) {
        connection_.hang_up(); // the receiving thread reconnects
    } else if (connection_.is_open()) {
        connection_.wait(clock::time_point::min(), false); // the service may have sent the reason
        take_input(connection::outcome::gone);
    } else {
        broken();
    }
    return ATS_OK;
}

// ---- receiving ----

template <class condition_t>
bool client::wait_until(lock& guard, clock::time_point deadline, condition_t is_reached)
{
    while (!is_reached()) {
        if (clock::now() >= deadline) return false;
        const auto wait_end = std::min(deadline, outstanding_.first_deadline());
        if (is_receiving_ || !connection_.is_open())
            news_.wait_until(guard, wait_end);
        else
            receive(guard, wait_end);
        end_overdue();
    }
    return true;
}

// Waits for input. Only one thread at a time does this.
void client::receive(lock& guard, clock::time_point deadline)
{
    const bool until_writable = connection_.unsent() > 0;
    is_receiving_ = true;
    guard.unlock();
    connection::outcome outcome = connection_.wait(deadline, until_writable);
    guard.lock();
    is_receiving_ = false;
    if (!connection_.flush()) outcome = connection::outcome::gone;
    take_input(outcome);
    watch();
    news_.notify_all();
}

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
    if (connection_.has_endless_line()) return lose_protocol("the service sends a line without an end");
    if (outcome == connection::outcome::gone) broken();
}

// Reads a limited amount, so the caller returns soon.
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
        return lose_protocol("the program that listens on " + path_ + " does not use the protocol of ats");
    if (!reply.has_id) return;
    const question* question = outstanding_.find(reply.id);
    if (!question) return; // its time was already over
    if (question->kind == asker::request)
        take_request_line(line);
    else
        end(reply.id, reply.answer);
}

void client::lose_protocol(const std::string& reason)
{
    close_connection();
    end_all(ATS_INVALID, reason);
}

void client::take_request_line(std::string_view line)
{
    std::string text;
    const reply reply = read_request_line(line, text);
    request_lines_.push_back(std::move(text));
    if (reply.is_last)
        outstanding_.take(reply.id);
    else if (request_lines_.size() == most_unread_lines)
        end(reply.id, ended(ATS_NO_MEMORY, "the lines of the answer were not read in time"));
}

// ---- connections that break ----

// Stop watching the socket first: a forked child keeps it open, and it would stay readable.
void client::close_connection()
{
    if (connection_.is_open()) wake_up_.forget_socket(connection_.fd());
    connection_.close();
}

// Reconnects, and repeats each question that was sent only once. Ends the other questions.
void client::broken()
{
    close_connection();
    if (outstanding_.is_empty()) return;
    std::string error;
    const bool is_connected = connection_.open(path_, error) == connection::attempt::connected;
    if (is_connected) greet();
    for (const uint64_t id : outstanding_.all()) {
        question& question = *outstanding_.find(id);
        const bool may_resend = is_connected && !question.was_resent && question.kind != asker::request;
        if (may_resend && connection_.send(question.line))
            question.was_resent = true;
        else
            end(id, ended(ATS_NOT_CONNECTED, went_away));
    }
}

// ---- ends of questions ----

void client::end_overdue()
{
    for (const uint64_t id : outstanding_.overdue(clock::now())) end(id, ended(ATS_NO_ANSWER, no_answer));
}

void client::end_all(ats_status_t status, const std::string& reason)
{
    for (const uint64_t id : outstanding_.all()) end(id, ended(status, reason));
}

void client::end(uint64_t id, const ats_answer_t& answer)
{
    const std::optional<question> question = outstanding_.take(id);
    if (!question) return;
    switch (question->kind) {
    case asker::blocking_call:
        blocking_answers_[id] = answer;
        break;
    case asker::submission:
        --submissions_;
        completions_.push_back(answer);
        completions_.back().tag = question->tag;
        break;
    case asker::request:
        if (id == request_id_) request_end_ = answer;
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
        send(guard, id, {asker::blocking_call, 0, deadline, line_of(body, id), false}, deadline);
    if (status != ATS_OK) return ended(status, last_error());
    wait_until(guard, deadline, [&] { return blocking_answers_.contains(id); });
    end(id, ended(ATS_NO_ANSWER, no_answer)); // if its deadline has passed
    const ats_answer_t answer = blocking_answers_.extract(id).mapped();
    watch();
    return answer;
}

ats_status_t client::submit(const ats_options_t& options, uint64_t tag, const std::string& body)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(options.timeout_ms);
    lock guard(mutex_);
    const uint64_t id = new_id();
    const ats_status_t status = send(guard, id, {asker::submission, tag, deadline, line_of(body, id), false}, deadline);
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

size_t client::hand_out(ats_answer_t* answers, size_t capacity)
{
    const size_t count = std::min(capacity, completions_.size());
    const auto end = completions_.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(completions_.begin(), end, answers);
    completions_.erase(completions_.begin(), end);
    watch();
    return count;
}

// Sets the events for which the client's descriptor becomes readable.
void client::watch()
{
    wake_up_.set(connection_.fd(), connection_.unsent() > 0, !completions_.empty(), outstanding_.first_deadline());
}

// Do not repeat a request on a second connection, because it may be an order. Therefore check first if the idle
// connection has broken.
ats_status_t client::begin_request(const std::string& body, clock::time_point deadline)
{
    lock guard(mutex_);
    take_input_without_waiting();
    outstanding_.take(request_id_);
    request_lines_.clear();
    request_end_ = {};
    request_id_ = new_id();
    question question{asker::request, 0, clock::time_point::max(), line_of(body, request_id_), false};
    return send(guard, request_id_, std::move(question), deadline);
}

ats_status_t client::request(const std::string& body, clock::time_point deadline, std::string& line)
{
    const auto longest = clock::now() + std::chrono::hours(1);
    {
        lock guard(mutex_);
        const bool is_our_turn = news_.wait_until(guard, std::min(deadline, longest), [&] { return !is_in_request_; });
        if (!is_our_turn) return failed(ATS_NO_ANSWER, no_answer);
        is_in_request_ = true;
    }
    const std::unique_ptr<client, void (*)(client*)> turn(this, [](client* self) { self->end_turn(); });
    const ats_status_t status = begin_request(body, deadline);
    return status == ATS_OK ? next_request_line(deadline, line) : status;
}

// Lets the next thread ask. If an answer is still missing, it is dropped when it arrives.
void client::end_turn()
{
    const lock guard(mutex_);
    outstanding_.take(request_id_);
    is_in_request_ = false;
    news_.notify_all();
}

ats_status_t client::next_request_line(clock::time_point deadline, std::string& line)
{
    lock guard(mutex_);
    const auto is_over = [&] { return !outstanding_.find(request_id_); };
    wait_until(guard, deadline, [&] { return !request_lines_.empty() || is_over(); });
    if (!request_lines_.empty()) {
        line = std::move(request_lines_.front());
        request_lines_.pop_front();
        return ATS_OK;
    }
    if (!is_over()) return failed(ATS_NO_ANSWER, no_answer);
    if (request_end_.status != ATS_OK) return failed(request_end_.status, request_end_.reason);
    return failed(ATS_NOT_FOUND, "the answer has no further line");
}

} // namespace client

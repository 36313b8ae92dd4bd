#include "cli/acm/connection.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace acm
{

namespace
{

// A partial request stays in the socket, so poll() would report it without end. A timer looks for the rest at this
// interval instead.
constexpr uint64_t rest_period_ms = 10;

connection& self_of(void* handle_data)
{
    return *static_cast<connection*>(handle_data);
}

} // namespace

connection::connection(owner& owner, uv_loop_t* loop, uint64_t number, client::descriptor socket,
                       std::chrono::milliseconds timeout)
    : owner_(owner), number_(number), socket_(std::move(socket)), timeout_ms_(static_cast<uint64_t>(timeout.count()))
{
    uv_poll_init(loop, &poll_, socket_.get());
    uv_timer_init(loop, &timer_);
    poll_.data = this;
    timer_.data = this;
    set_events(UV_READABLE);
}

// ---- requests ----

void connection::set_events(int events)
{
    if (events == events_ || is_closed_) return;
    events_ = events;
    uv_poll_start(&poll_, events, [](uv_poll_t* poll, int error, int revents) {
        connection& self = self_of(poll->data);
        if (error < 0 || (revents & UV_DISCONNECT) != 0)
            self.cut_off();
        else
            self.look();
    });
}

// Looks for the next whole request, and leaves it in the socket.
void connection::look()
{
    const ssize_t size = recv(socket_.get(), request_.data(), request_.size(), MSG_PEEK | MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return cut_off();
    const auto input = message_view(request_).first(static_cast<size_t>(size));
    const std::optional<size_t> length = length_of(input);
    if (!length) return cut_off();
    if (*length == 0 || input.size() < *length) return wait_for_rest();
    rest_deadline_ms_ = 0;
    begin(input.first(*length));
}

void connection::wait_for_rest()
{
    const uint64_t now = uv_now(poll_.loop);
    if (rest_deadline_ms_ == 0) rest_deadline_ms_ = now + timeout_ms_;
    if (now >= rest_deadline_ms_) return cut_off();
    set_events(UV_DISCONNECT);
    start_timer(rest_period_ms);
}

void connection::begin(message_view request)
{
    request_length_ = request.size();
    owner_.take_request(*this, request);
    if (is_closed_ || request_length_ == 0) return; // it already has its answer
    set_events(UV_DISCONNECT);
    start_timer(timeout_ms_);
}

void connection::start_timer(uint64_t milliseconds)
{
    is_timer_running_ = true;
    uv_timer_start(
        &timer_, [](uv_timer_t* timer) { self_of(timer->data).timer_fired(); }, milliseconds, 0);
}

void connection::timer_fired()
{
    is_timer_running_ = false;
    if (request_length_ > 0) return owner_.request_timed_out(*this, message_view(request_).first(request_length_));
    set_events(UV_READABLE);
    look();
}

// Takes the request out of the socket before sending the answer. If the process is killed in between, one answer is
// missing. In the other order, the program could get this answer a second time, as the answer to its next request.
void connection::answer(const message& bytes)
{
    if (is_closed_ || request_length_ == 0) return;
    std::array<uint8_t, longest_message> request_bytes;
    const ssize_t request_size = recv(socket_.get(), request_bytes.data(), request_length_, MSG_DONTWAIT);
    const bool is_taken = request_size == static_cast<ssize_t>(request_length_);
    request_length_ = 0;
    ++request_number_;
    // A program that does not read its answers is cut off.
    const ssize_t sent = is_taken ? send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) : -1;
    if (sent != static_cast<ssize_t>(bytes.size())) return cut_off();
    if (is_timer_running_) uv_timer_stop(&timer_);
    is_timer_running_ = false;
    set_events(UV_READABLE);
}

// ---- the end ----

void connection::cut_off()
{
    if (!is_closed_) shutdown(socket_.get(), SHUT_RDWR);
    close();
}

void connection::close()
{
    if (is_closed_) return;
    is_closed_ = true;
    const auto closed = [](uv_handle_t* handle) { self_of(handle->data).handle_closed(); };
    uv_close(reinterpret_cast<uv_handle_t*>(&poll_), closed);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer_), closed);
}

void connection::handle_closed()
{
    if (--open_handles_ == 0) owner_.ended(*this);
}

} // namespace acm

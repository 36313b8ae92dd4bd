#include "cli/acm/connection.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace acm
{

namespace
{

// A partial request stays in the socket, so poll() would report input all the time. Therefore the connection stops
// polling for input, and peeks at the socket again after this time.
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

// Sets the events that poll_ reports. UV_DISCONNECT reports only that the program has closed the connection.
void connection::set_events(int events)
{
    if (events == events_ || is_closed_) return;
    events_ = events;
    uv_poll_start(&poll_, events, [](uv_poll_t* poll, int error, int revents) {
        connection& self = self_of(poll->data);
        if (error < 0 || (revents & UV_DISCONNECT) != 0)
            self.cut_off();
        else
            self.peek_request();
    });
}

// Copies the input without removing it from the socket. If the input begins with a whole request, starts to answer the
// request. Cuts the program off if the input is not a request, or if it has ended.
void connection::peek_request()
{
    const ssize_t size = recv(socket_.get(), request_.data(), request_.size(), MSG_PEEK | MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return cut_off();
    const auto input = message_view(request_).first(static_cast<size_t>(size));
    const std::optional<size_t> length = length_of(input);
    if (!length) return cut_off();
    if (*length == 0 || input.size() < *length) return wait_for_rest();
    rest_deadline_ms_ = 0;
    begin_request(input.first(*length));
}

// Arranges another look at a partial request after rest_period_ms. Cuts the program off if the rest of the request has
// not come within the time-out.
void connection::wait_for_rest()
{
    const uint64_t now = uv_now(poll_.loop);
    if (rest_deadline_ms_ == 0) rest_deadline_ms_ = now + timeout_ms_;
    if (now >= rest_deadline_ms_) return cut_off();
    set_events(UV_DISCONNECT);
    start_timer(rest_period_ms);
}

void connection::begin_request(message_view request)
{
    request_length_ = request.size();
    owner_.take_request(*this, request);
    if (is_closed_ || request_length_ == 0) return; // the owner has answered during the call
    set_events(UV_DISCONNECT);
    start_timer(timeout_ms_);
}

void connection::start_timer(uint64_t milliseconds)
{
    is_timer_running_ = true;
    uv_timer_start(
        &timer_, [](uv_timer_t* timer) { self_of(timer->data).handle_timer(); }, milliseconds, 0);
}

// The timer runs while a request is being answered, or while the rest of a partial request is missing.
void connection::handle_timer()
{
    is_timer_running_ = false;
    if (request_length_ > 0) return owner_.request_timed_out(*this, message_view(request_).first(request_length_));
    set_events(UV_READABLE);
    peek_request();
}

// Removes the request from the socket before it sends the answer. If the service is killed between these two calls, the
// client gets no answer to this request. The other order would be worse: a new process of the service would find the
// request again and answer it a second time. The client would take the second answer for the answer to its next
// request.
void connection::answer(const message& bytes)
{
    if (is_closed_ || request_length_ == 0) return;
    std::array<uint8_t, longest_message> request_bytes;
    const ssize_t request_size = recv(socket_.get(), request_bytes.data(), request_length_, MSG_DONTWAIT);
    const bool is_removed = request_size == static_cast<ssize_t>(request_length_);
    request_length_ = 0;
    ++request_number_;
    // The send fails if the program does not read its answers. The program is then cut off.
    const ssize_t size = is_removed ? send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) : -1;
    if (size != static_cast<ssize_t>(bytes.size())) return cut_off();
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
    const auto count_close = [](uv_handle_t* handle) { self_of(handle->data).count_closed_handle(); };
    uv_close(reinterpret_cast<uv_handle_t*>(&poll_), count_close);
    uv_close(reinterpret_cast<uv_handle_t*>(&timer_), count_close);
}

void connection::count_closed_handle()
{
    if (--open_handles_ == 0) owner_.connection_ended(*this);
}

} // namespace acm

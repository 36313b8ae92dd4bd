#include "cli/server/client-listener.h"

namespace cli
{

namespace
{

constexpr uint64_t check_period_ms = 1000;
constexpr size_t most_clients_of_round = 64;

void close_and_free(uv_pipe_t* pipe)
{
    uv_close(reinterpret_cast<uv_handle_t*>(pipe),
             [](uv_handle_t* handle) { delete reinterpret_cast<uv_pipe_t*>(handle); });
}

} // namespace

int client_listener::start(uv_loop_t* loop, accept_call accept)
{
    loop_ = loop;
    accept_ = std::move(accept);
    uv_timer_init(loop, &check_timer_);
    uv_timer_init(loop, &round_timer_);
    check_timer_.data = this;
    round_timer_.data = this;
    if (const int error = listen(); error != 0) return error;
    return uv_timer_start(
        &check_timer_, [](uv_timer_t* timer) { static_cast<client_listener*>(timer->data)->check_file(); },
        check_period_ms, check_period_ms);
}

// Listens on a copy of the socket's descriptor, and stops listening on the earlier copy. Returns 0, or an error number
// of libuv.
int client_listener::listen()
{
    auto* pipe = new uv_pipe_t;
    uv_pipe_init(loop_, pipe, 0);
    pipe->data = this;
    client::descriptor copy = socket_->duplicate();
    int error = copy.is_open() ? uv_pipe_open(pipe, copy.release()) : uv_translate_sys_error(errno);
    if (error == 0)
        error = uv_listen(reinterpret_cast<uv_stream_t*>(pipe), SOMAXCONN, [](uv_stream_t* listener, int status) {
            if (status == 0) static_cast<client_listener*>(listener->data)->take_client();
        });
    if (error != 0) {
        close_and_free(pipe);
        return error;
    }
    if (listener_) close_and_free(listener_);
    listener_ = pipe;
    is_client_deferred_ = false;
    return 0;
}

// Accepts a client, or leaves it for the next round of the loop. libuv calls this function until no client waits. If
// clients connect as fast as the service accepts them, that would never end, and the loop could do nothing else. If
// this function does not accept the client, libuv keeps it and stops listening until the client is accepted.
void client_listener::take_client()
{
    is_client_deferred_ = round_clients_ == most_clients_of_round;
    if (is_client_deferred_) return;
    if (++round_clients_ == 1)
        uv_timer_start(
            &round_timer_, [](uv_timer_t* timer) { static_cast<client_listener*>(timer->data)->begin_round(); }, 0, 0);
    accept_(reinterpret_cast<uv_stream_t*>(listener_));
}

// Runs in the round after one that has accepted clients.
void client_listener::begin_round()
{
    round_clients_ = 0;
    if (!is_client_deferred_) return;
    is_client_deferred_ = false;
    accept_(reinterpret_cast<uv_stream_t*>(listener_));
}

// Creates the socket's file again if it is not in place. Reports a failure only once.
void client_listener::check_file()
{
    if (socket_->is_in_place() && !must_listen_) {
        is_loss_reported_ = false;
        return;
    }
    const ats::result<> result = socket_->is_in_place() ? ats::result<>() : socket_->restore();
    const int error = result ? listen() : 0;
    must_listen_ = error != 0;
    if (result && error == 0)
        return report_("the file of the socket " + socket_->path() + " was removed; the service has made it again");
    if (is_loss_reported_) return;
    is_loss_reported_ = true;
    report_("new clients do not find the service: " + (result ? std::string(uv_strerror(error)) : result.error().text));
}

void client_listener::close()
{
    if (listener_) close_and_free(listener_);
    listener_ = nullptr;
    uv_close(reinterpret_cast<uv_handle_t*>(&check_timer_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&round_timer_), nullptr);
}

} // namespace cli

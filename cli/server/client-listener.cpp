#include "cli/server/client-listener.h"

namespace cli
{

namespace
{

constexpr uint64_t check_period_ms = 1000;

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
    check_timer_.data = this;
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
            if (status == 0) static_cast<client_listener*>(listener->data)->accept_(listener);
        });
    if (error != 0) {
        close_and_free(pipe);
        return error;
    }
    if (listener_) close_and_free(listener_);
    listener_ = pipe;
    return 0;
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
}

} // namespace cli

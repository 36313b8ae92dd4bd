#include "cli/server/event-loop.h"

#include <csignal>
#include <fcntl.h>
#include <vector>

#include "client/descriptor.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

// Blocks SIGPIPE in the calling thread. libuv writes without MSG_NOSIGNAL: a write to a connection that the client has
// closed raises SIGPIPE, which ends the process. If the signal is blocked, the write fails instead.
void block_sigpipe()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// Throws exec::shortage if the process cannot open the number of files that a loop needs. Without this check, libuv
// would end the program.
void require_room()
{
    constexpr size_t files_of_a_loop = 8;
    std::vector<client::descriptor> files;
    while (files.size() < files_of_a_loop) {
        files.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!files.back().is_open()) exec::throw_shortage("clients cannot be served: /dev/null cannot be opened");
    }
}

} // namespace

event_loop::event_loop()
{
    require_room();
    uv_loop_init(&loop_);
    uv_async_init(&loop_, &wake_up_, [](uv_async_t* handle) { static_cast<event_loop*>(handle->data)->run_queue(); });
    wake_up_.data = this;
    uv_check_init(&loop_, &round_check_);
    round_check_.data = this;
    uv_check_start(&round_check_, [](uv_check_t* handle) { static_cast<event_loop*>(handle->data)->end_of_round_(); });
}

event_loop::~event_loop()
{
    uv_loop_close(&loop_);
}

void event_loop::start()
{
    thread_ = exec::new_thread([this] {
        block_sigpipe();
        uv_run(&loop_, UV_RUN_DEFAULT);
    });
}

void event_loop::post(std::function<void()> work)
{
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(work));
    if (queue_.size() == 1) uv_async_send(&wake_up_);
}

void event_loop::run_queue()
{
    std::vector<std::function<void()>> all;
    {
        const std::lock_guard lock(mutex_);
        all.swap(queue_);
    }
    for (const auto& work : all) work();
}

void event_loop::stop()
{
    post([this] {
        uv_close(reinterpret_cast<uv_handle_t*>(&wake_up_), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&round_check_), nullptr);
    });
    if (thread_.joinable()) thread_.join();
}

} // namespace cli

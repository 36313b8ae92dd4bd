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

// libuv writes without MSG_NOSIGNAL. If a client has closed its connection, SIGPIPE would end the process. With the
// signal blocked, the write fails instead.
void block_sigpipe()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// libuv ends the program when it cannot open the files that a loop needs. This function fails before that happens.
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
    uv_async_init(&loop_, &wake_up_, [](uv_async_t* handle) { static_cast<event_loop*>(handle->data)->run_posted(); });
    wake_up_.data = this;
    uv_check_init(&loop_, &round_);
    round_.data = this;
    uv_check_start(&round_, [](uv_check_t* handle) { static_cast<event_loop*>(handle->data)->end_of_round_(); });
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
    posted_.push_back(std::move(work));
    if (posted_.size() == 1) uv_async_send(&wake_up_);
}

void event_loop::run_posted()
{
    std::vector<std::function<void()>> all;
    {
        const std::lock_guard lock(mutex_);
        all.swap(posted_);
    }
    for (const auto& work : all) work();
}

void event_loop::stop()
{
    post([this] {
        uv_close(reinterpret_cast<uv_handle_t*>(&wake_up_), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&round_), nullptr);
    });
    if (thread_.joinable()) thread_.join();
}

} // namespace cli

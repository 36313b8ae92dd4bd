#include "host/fabric/umad/device-events.h"

#include <cerrno>
#include <fcntl.h>
#include <infiniband/verbs.h>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace umad
{

namespace
{

// Translates an event of libibverbs about a port or the whole device. Returns none for other events, for example those
// of queues.
std::optional<device_event> meaning_of(const ibv_async_event& event)
{
    using enum device_event_kind;
    switch (event.event_type) {
    case IBV_EVENT_PORT_ACTIVE:
    case IBV_EVENT_PORT_ERR:
    case IBV_EVENT_LID_CHANGE:
    case IBV_EVENT_PKEY_CHANGE:
    case IBV_EVENT_SM_CHANGE:
    case IBV_EVENT_GID_CHANGE:
        return device_event{port_changed, event.element.port_num};
    case IBV_EVENT_CLIENT_REREGISTER:
        return device_event{reregister, event.element.port_num};
    case IBV_EVENT_DEVICE_FATAL:
        return device_event{ended};
    default:
        return std::nullopt;
    }
}

ibv_context* open_device(const std::string& hca)
{
    int count = 0;
    ibv_device** const devices = ibv_get_device_list(&count);
    if (!devices) return nullptr;
    ibv_context* context = nullptr;
    for (int i = 0; i < count && !context; ++i)
        if (hca == ibv_get_device_name(devices[i])) context = ibv_open_device(devices[i]);
    ibv_free_device_list(devices);
    return context;
}

class verbs_events final : public device_events
{
  public:
    verbs_events(exec::executor& exec, const std::string& hca, ibv_context* context,
                 std::function<void(const device_event&)> take)
        : exec_(exec), name_(hca + " events"), context_(context), take_(std::move(take))
    {
        const int descriptor = context_->async_fd;
        fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
        task_ = &exec_.start(nullptr, name_, [this] { run(); });
    }

    ~verbs_events() override
    {
        is_stopping_ = true;
        eventfd_write(wakeup_, 1);
        exec_.join(*task_);
        ibv_close_device(context_);
        close(wakeup_);
    }

    fabric::fabric_task watched_task() override
    {
        return {.name = name_,
                .wake = [this] { eventfd_write(wakeup_, 1); },
                .rounds = [this] { return rounds_.load(std::memory_order_relaxed); }};
    }

  private:
    // The task's loop. After the last event, the task still makes a round for each wake-up. So a watchdog sees that the
    // task does not hang.
    void run()
    {
        pollfd descriptors[] = {{context_->async_fd, POLLIN, 0}, {wakeup_, POLLIN, 0}};
        while (!is_stopping_) {
            rounds_.fetch_add(1, std::memory_order_relaxed);
            const bool has_failed = poll(descriptors, 2, -1) < 0 && errno != EINTR;
            if (has_failed || (descriptors[0].revents != 0 && !take_next())) {
                if (descriptors[0].fd == no_file) return;
                descriptors[0] = {no_file, 0, 0};
                take_({device_event_kind::ended});
            }
            eventfd_t wake_ups;
            eventfd_read(wakeup_, &wake_ups);
        }
    }

    // Receives an event, if there is one, and passes it on. Returns false if no further event can come.
    bool take_next()
    {
        ibv_async_event event;
        if (ibv_get_async_event(context_, &event) != 0) return errno == EAGAIN || errno == EINTR;
        const std::optional<device_event> port_event = meaning_of(event);
        ibv_ack_async_event(&event);
        if (port_event && port_event->kind == device_event_kind::ended) return false;
        if (port_event) take_(*port_event);
        return true;
    }

    static constexpr int no_file = -1; // poll() skips it

    exec::executor& exec_;
    const std::string name_;
    ibv_context* const context_;
    const std::function<void(const device_event&)> take_;
    const int wakeup_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<bool> is_stopping_{false};
    std::atomic<uint64_t> rounds_{0}; // rounds of the task's loop
    exec::task* task_ = nullptr;
};

} // namespace

std::unique_ptr<device_events> device_events::open(exec::executor& exec, const std::string& hca,
                                                   std::function<void(const device_event&)> take)
{
    ibv_context* const context = open_device(hca);
    if (!context) return nullptr;
    return std::make_unique<verbs_events>(exec, hca, context, std::move(take));
}

} // namespace umad

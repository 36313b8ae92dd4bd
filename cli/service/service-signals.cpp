#include "cli/service/service-signals.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <fcntl.h>
#include <thread>

#include "client/descriptor.h"

namespace cli
{

namespace
{

constexpr std::array numbers = {SIGINT, SIGTERM, SIGHUP};

bool has_terminal()
{
    return client::descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)).is_open();
}

} // namespace

service_signals::service_signals(bool can_reload) : can_reload_(can_reload), had_terminal_(has_terminal())
{
    sigemptyset(&set_);
    for (const int number : numbers) sigaddset(&set_, number);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    signal(SIGPIPE, SIG_IGN); // a failed write must not end the program before the hosts have deleted their records
}

bool service_signals::stops(int number) const
{
    return number != SIGHUP || !can_reload_ || (had_terminal_ && !has_terminal());
}

bool service_signals::is_stop_pending() const
{
    sigset_t pending_signals;
    sigpending(&pending_signals);
    return std::ranges::any_of(numbers,
                               [&](int number) { return sigismember(&pending_signals, number) == 1 && stops(number); });
}

service_signals::signal_meaning service_signals::wait() const
{
    int number = 0;
    sigwait(&set_, &number);
    if (!stops(number)) return signal_meaning::reload;
    let_next_signal_end_the_program();
    return signal_meaning::stop;
}

void service_signals::wait_for_stop() const
{
    while (wait() == signal_meaning::reload) continue;
}

// Lets the next signal end the program, unless it comes within 0.1 seconds. Such a signal is a duplicate and is
// dropped: timeout(1), for example, signals the process and then its group.
void service_signals::let_next_signal_end_the_program() const
{
    constexpr std::chrono::milliseconds repeat_limit(100);
    constexpr timespec no_wait{};
    std::this_thread::sleep_for(repeat_limit);
    while (sigtimedwait(&set_, nullptr, &no_wait) > 0) continue;
    if (can_reload_) signal(SIGHUP, SIG_IGN);
    pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
}

} // namespace cli

// The signals that end a service or make it reload its configuration.
#pragma once

#include <csignal>

namespace cli
{

class service_signals
{
  public:
    enum class signal_meaning { stop, reload };

    // Blocks the signals in this thread and in all threads that it starts later; only wait() accepts them. SIGINT and
    // SIGTERM end the service. Without `can_reload`, SIGHUP also ends the service. With `can_reload`, SIGHUP means
    // reload; only the SIGHUP of a closing terminal, on which the service was started, ends the service.
    explicit service_signals(bool can_reload);

    // Returns true if a signal to stop has come and wait() has not accepted it yet. Does not wait.
    bool is_stop_pending() const;

    // Waits for a signal. If the same signal came several times before the call, it counts once. After wait() has
    // returned `stop`, another signal to stop ends the program at once, and a signal to reload does nothing.
    signal_meaning wait() const;

    // Waits for a signal to stop. Drops signals to reload.
    void wait_for_stop() const;

  private:
    bool stops(int number) const;
    void let_next_signal_end_the_program() const;

    const bool can_reload_;
    const bool had_terminal_;
    sigset_t set_;
};

} // namespace cli

// The signals by which a service is told to end, or to read its configuration again.
#pragma once

#include <csignal>

namespace cli
{

class service_signals
{
  public:
    enum class told { stop, reload };

    // Blocks the signals in this thread and in all threads that it starts later; only wait() accepts them. SIGINT and
    // SIGTERM end the service. SIGHUP does too, unless it `can_reload`. If it does, and runs on a terminal, SIGHUP
    // ends it when the terminal goes.
    explicit service_signals(bool can_reload);

    bool is_stop_pending() const;

    // Waits for a signal. Repeats that came before the first one was taken count once. After `stop`, another signal
    // that stops ends the program at once, and one that reloads has no effect.
    told wait() const;

    // The same, and reloads have no effect.
    void wait_for_stop() const;

  private:
    bool stops(int number) const;
    void let_next_signal_end_the_program() const;

    const bool can_reload_;
    const bool had_terminal_;
    sigset_t set_;
};

} // namespace cli

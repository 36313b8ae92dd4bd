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
    // SIGTERM end the service. Without `can_reload`, SIGHUP also ends it. With `can_reload`, SIGHUP reloads; on a
    // terminal, it ends the service when the terminal closes.
    explicit service_signals(bool can_reload);

    bool is_stop_pending() const;

    // Waits for a signal. Repeats of a signal that has not been accepted yet count once. After `stop`, another stop
    // signal ends the program at once, and a reload signal does nothing.
    signal_meaning wait() const;

    // Does the same, but ignores reloads.
    void wait_for_stop() const;

  private:
    bool stops(int number) const;
    void let_next_signal_end_the_program() const;

    const bool can_reload_;
    const bool had_terminal_;
    sigset_t set_;
};

} // namespace cli

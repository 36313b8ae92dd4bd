// What a port tells of itself, and whether its SA answers.
#include "host/fabric/umad/port-files.h"
#include "host/fabric/umad/port.h"

namespace umad
{

namespace
{

// A port is silent towards its SA when so many requests have gone out for so long without any answer. Less would
// take a lost datagram for it, or an SA that is busy for a moment.
constexpr uint32_t unanswered_requests = 3;
constexpr uint64_t unanswered_ticks = 3000;

} // namespace

void port::look(uint64_t now)
{
    if (now < watch_.next_due()) return;
    if (!device_.is_open() && !device_.open().empty()) return watch_.postpone(now);
    if (!watch_.has_ever_answered() && (watch_.is_silent() || !device_.has_self_client())) reads_files_ = true;
    if (reads_files_) {
        watch_.postpone(now);
        if (const auto told = attributes_in_files(hca_, number_)) return learn(*told, condition_of(*told));
        return lose_device();
    }
    if (watch_.is_silent()) {
        watch_.postpone(now);
        return learn_down(port_condition::silent);
    }
    if (const auto question = watch_.question_due(now)) ask(*question);
}

void port::ask(const fabric::mad_bytes& question)
{
    device::packet leaving;
    leaving.mad() = question;
    leaving.address().lid = 0xFFFF;              // permissive: this port, whatever its LID
    device_.send(device::client::self, leaving); // one that fails is as good as unanswered
}

void port::learn(const fabric::port_attributes& now, port_condition condition)
{
    std::vector<fabric::port_change> changes;
    {
        const std::lock_guard lock(mutex_);
        changes = changes_between(known_, now);
        known_ = now;
        lid_ = now.lid;
    }
    condition_ = condition;
    if (std::string text = text_of(condition, now); text != said_state_) {
        say(text);
        said_state_ = std::move(text);
    }
    for (const fabric::port_change change : changes) events_.changed(change, now.sm_lid);
}

void port::learn_down(port_condition condition)
{
    fabric::port_attributes last = read();
    last.state = fabric::link_state::down;
    learn(last, condition);
}

void port::lose_device()
{
    device_.close();
    reads_files_ = false;
    watch_.postpone(around_.exec.now());
    learn_down(port_condition::lost);
}

void port::watch_sa(uint64_t now)
{
    const uint64_t since = waiting_since_tick_;
    const bool is_silent = sent_since_answer_ >= unanswered_requests && now >= since && now - since >= unanswered_ticks;
    if (is_silent == sa_is_silent_) return;
    sa_is_silent_ = is_silent;
    say(is_silent ? "the SA at LID " + std::to_string(read().sm_lid) +
                        " answers no request: it may be busy or starting; requests are still sent"
                  : "the SA answers again");
}

} // namespace umad

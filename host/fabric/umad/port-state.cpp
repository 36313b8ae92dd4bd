// The functions of `port` that update its state and that find out if the SA is silent. The state comes from the port's
// answers or from files in /sys.
#include "host/fabric/umad/port-files.h"
#include "host/fabric/umad/port.h"

namespace umad
{

namespace
{

// The SA counts as silent if at least silence_requests requests were sent since its last answer, and the first of them
// is at least silence_ticks old. With lower limits, one lost datagram or a briefly busy SA would count as silence.
constexpr uint32_t silence_requests = 3;
constexpr uint64_t silence_ticks = 3000;

} // namespace

void port::update_state(uint64_t now)
{
    if (now < watch_.next_due()) return;
    if (!device_.is_open() && !device_.open()) return watch_.postpone(now);
    const bool answers_no_question = watch_.is_silent() || !device_.has_self_client();
    if (!watch_.has_ever_answered() && answers_no_question) reads_files_ = true;
    if (reads_files_) return read_state_files(now);
    if (watch_.is_silent()) {
        watch_.postpone(now);
        return set_link_down(port_condition::silent);
    }
    ask_next(now);
}

void port::ask_next(uint64_t now)
{
    if (const auto question = watch_.due_question(now)) ask(*question);
}

void port::read_state_files(uint64_t now)
{
    watch_.postpone(now);
    const auto attributes = read_port_files(hca_, number_);
    if (attributes)
        set_attributes(*attributes, condition_of(*attributes));
    else
        close_lost_device();
}

void port::ask(const fabric::mad_bytes& question)
{
    constexpr uint16_t permissive_lid = 0xFFFF; // addresses this port, whatever its LID is
    device::packet packet;
    packet.mad() = question;
    packet.address().lid = permissive_lid;
    device_.send(device::client::self, packet); // a failed send counts as a question without an answer
}

void port::set_attributes(const fabric::port_attributes& attributes, port_condition condition)
{
    std::vector<fabric::port_change> changes;
    {
        const std::lock_guard lock(attributes_mutex_);
        changes = changes_between(attributes_, attributes);
        if (must_register_.exchange(false)) changes = with_registration(changes, attributes);
        attributes_ = attributes;
        lid_ = attributes.lid;
    }
    condition_ = condition;
    const std::string state = text_of(condition, attributes);
    if (state != reported_state_) report(state);
    reported_state_ = state;
    for (const fabric::port_change change : changes) events_.port_changed(change, attributes.sm_lid);
}

void port::set_link_down(port_condition condition)
{
    fabric::port_attributes attributes = read();
    attributes.state = fabric::link_state::down;
    set_attributes(attributes, condition);
}

void port::close_lost_device()
{
    device_.close();
    reads_files_ = false;
    watch_.postpone(context_.exec.now());
    set_link_down(port_condition::lost);
}

void port::check_sa_silence(uint64_t now)
{
    const uint64_t begin = first_unanswered_tick_;
    const bool is_silent = unanswered_requests_ >= silence_requests && now >= begin && now - begin >= silence_ticks;
    if (is_silent == is_sa_silent_) return;
    is_sa_silent_ = is_silent;
    report(is_silent ? "the SA at LID " + std::to_string(read().sm_lid) +
                           " answers no request: it may be busy or starting; requests are still sent"
                     : "the SA answers again");
}

} // namespace umad

#include "host/fabric/umad/port-watch.h"

namespace umad
{

namespace
{

bool is_active(const fabric::port_attributes& port)
{
    return port.state == fabric::link_state::active;
}

template <class table_t>
typename table_t::value_type first_of(const table_t& table)
{
    return table.empty() ? typename table_t::value_type{} : table.front();
}

} // namespace

// An active port that finds itself with another GID or first P_Key has a record at the SA that is no longer true, and
// one with another LID has been set up by an SM that may never have heard of the record: in either case the host is to
// register anew, which a link that goes down and comes up makes it do, at the price of one Delete and one Set. What
// else changes needs no more than another look at the port, which is what a host does on an SM change.
std::vector<fabric::port_change> changes_between(const fabric::port_attributes& before,
                                                 const fabric::port_attributes& now)
{
    using enum fabric::port_change;
    if (!is_active(before)) return is_active(now) ? std::vector{link_up} : std::vector<fabric::port_change>{};
    if (!is_active(now)) return {link_down};
    if (before.lid != now.lid || first_of(before.gids) != first_of(now.gids) ||
        first_of(before.p_keys) != first_of(now.p_keys))
        return {link_down, link_up};
    if (before.sm_lid != now.sm_lid || before.sm_sl != now.sm_sl || before.lmc != now.lmc || before.mtu != now.mtu ||
        before.gids != now.gids || before.p_keys != now.p_keys)
        return {sm_change};
    return {};
}

port_condition condition_of(const fabric::port_attributes& attributes)
{
    switch (attributes.state) {
    case fabric::link_state::active:
        return port_condition::active;
    case fabric::link_state::down:
        return port_condition::link_down;
    default:
        return port_condition::no_sm;
    }
}

std::string text_of(port_condition condition, const fabric::port_attributes& attributes)
{
    switch (condition) {
    case port_condition::lost:
        return "the device is gone (unplugged, or its driver unloaded); it will be used again when it is back";
    case port_condition::silent:
        return "the port does not tell its state any more and counts as down; see 'dmesg' for the HCA";
    case port_condition::link_down:
        return "the link is down: check the cable and the switch port";
    case port_condition::no_sm:
        return "the link is up, but no subnet manager has activated the port yet: is one running (opensm)? "
               "Waiting for it";
    case port_condition::active:
        return "active with LID " + std::to_string(attributes.lid) + ", the SM at LID " +
               std::to_string(attributes.sm_lid);
    default:
        return "";
    }
}

std::optional<fabric::mad_bytes> port_watch::question_due(uint64_t now)
{
    if (now < due_) return std::nullopt;
    if (!is_asking_) {
        query_.restart();
        is_asking_ = true;
        tries_ = 0;
    }
    ++tries_;
    due_ = now + answer_time;
    return query_.next_question();
}

std::optional<fabric::port_attributes> port_watch::answered(const fabric::mad_bytes& answer, uint64_t now)
{
    if (!query_.accept(answer)) return std::nullopt;
    has_ever_answered_ = true;
    tries_ = 0;
    due_ = now;
    const auto result = query_.result();
    if (result) postpone(now);
    return result;
}

void port_watch::postpone(uint64_t now)
{
    is_asking_ = false;
    due_ = now + interval_;
}

} // namespace umad

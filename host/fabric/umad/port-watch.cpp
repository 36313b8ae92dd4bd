#include "host/fabric/umad/port-watch.h"

#include <algorithm>
#include <utility>

#include "host/fabric/umad/umad.h"

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

// If the first GID or the first P_Key of an active port changes, the host's record at the SA is wrong. If the LID
// changes, perhaps a new SM has set up the port, and its SA does not know the record. In both cases the host must
// register again. For changes of some other attributes of an active port, an sm_change is enough: the host then only
// reads the port again.
std::vector<fabric::port_change> changes_between(const fabric::port_attributes& previous,
                                                 const fabric::port_attributes& current)
{
    using enum fabric::port_change;
    if (!is_active(previous) && !is_active(current)) return {};
    if (!is_active(previous)) return {link_up};
    if (!is_active(current)) return {link_down};
    if (previous.lid != current.lid || first_of(previous.gids) != first_of(current.gids) ||
        first_of(previous.p_keys) != first_of(current.p_keys))
        return {reregister};
    if (previous.sm_lid != current.sm_lid || previous.sm_sl != current.sm_sl || previous.lmc != current.lmc ||
        previous.mtu != current.mtu || previous.gids != current.gids || previous.p_keys != current.p_keys)
        return {sm_change};
    return {};
}

std::vector<fabric::port_change> with_registration(const std::vector<fabric::port_change>& changes,
                                                   const fabric::port_attributes& current)
{
    using enum fabric::port_change;
    const bool registers_anyway = std::ranges::find(changes, link_up) != changes.end();
    if (!is_active(current) || registers_anyway) return changes;
    return {reregister};
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
        return "the port does not report its state any more and counts as down: look at 'dmesg'";
    case port_condition::link_down:
        return link_down_text;
    case port_condition::no_sm:
        return "the link is up, but no subnet manager has activated the port yet: is one running (opensm)? "
               "Waiting for it";
    case port_condition::active:
        return active_text(attributes.lid, attributes.sm_lid);
    default:
        return "";
    }
}

std::optional<fabric::mad_bytes> port_watch::due_question(uint64_t now)
{
    if (now < due_) return std::nullopt;
    if (!is_asking_) {
        const bool is_brief = brief_looks_ > 0;
        query_.restart(is_brief ? self_query::look::brief : self_query::look::whole);
        brief_looks_ = is_brief ? brief_looks_ - 1 : whole_look_period - 1;
        is_asking_ = true;
        tries_ = 0;
    }
    ++tries_;
    due_ = now + answer_time;
    return query_.next_question();
}

std::optional<fabric::port_attributes> port_watch::accept(const fabric::mad_bytes& answer, uint64_t now)
{
    if (!is_asking_ || !query_.accept(answer)) return std::nullopt;
    has_ever_answered_ = true;
    tries_ = 0;
    due_ = now;
    const auto attributes = query_.result();
    if (!attributes) return std::nullopt;
    postpone(now);
    if (std::exchange(next_look_is_due_, false)) due_ = now;
    return attributes;
}

void port_watch::hurry(uint64_t now, self_query::look first)
{
    const bool is_brief = first == self_query::look::brief;
    is_asking_ = false; // answers to earlier questions may be outdated
    tries_ = 0;
    brief_looks_ = is_brief ? 1 : 0;
    next_look_is_due_ = is_brief;
    due_ = now;
}

void port_watch::postpone(uint64_t now)
{
    is_asking_ = false;
    tries_ = 0;
    due_ = now + interval_;
}

} // namespace umad

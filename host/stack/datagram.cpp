#include "host/stack/datagram.h"

#include <new>

#include "host/exec/task.h"
#include "host/stack/datagram-pool.h"

namespace stack
{

namespace
{

const char* text_of(datagram_state state)
{
    switch (state) {
    case datagram_state::free:
        return "is back in its pool";
    case datagram_state::held:
        return "is a client's";
    case datagram_state::posted:
        return "is posted and has not completed";
    case datagram_state::received:
        return "has arrived and was not delivered";
    }
    return "is damaged";
}

const char* text_of(datagram_event event)
{
    switch (event) {
    case datagram_event::none:
        break;
    case datagram_event::taken:
        return "taken";
    case datagram_event::posted:
        return "posted";
    case datagram_event::refused:
        return "refused";
    case datagram_event::sent:
        return "sent";
    case datagram_event::received:
        return "received";
    case datagram_event::delivered:
        return "delivered";
    case datagram_event::put:
        return "put";
    }
    return "damaged";
}

} // namespace

datagram_record& datagram_record::make(gsi_dtgrm_t& datagram, datagram_pool& pool)
{
    return *new (datagram.priv) datagram_record(pool);
}

datagram_record& datagram_record::record_of(void* datagram, const char* call)
{
    auto* record = static_cast<datagram_record*>(datagram);
    const bool is_aligned = reinterpret_cast<uintptr_t>(datagram) % alignof(datagram_record) == 0;
    if (!datagram || !is_aligned || record->mark_ != mark)
        exec::panic("%s: %p is not a datagram of any pool", call, datagram);
    return *record;
}

std::string datagram_record::history() const
{
    std::string text;
    for (size_t i = 0; i < steps_.size(); ++i) {
        const datagram_step& step = steps_[(step_count_ + i) % steps_.size()]; // oldest first
        if (step.event == datagram_event::none) continue;
        if (!text.empty()) text += ", ";
        text += std::string(text_of(step.event)) + " at tick " + std::to_string(step.tick);
        if (step.mgt_class != 0)
            text += " by class " + std::to_string(step.mgt_class) + " of port " + std::to_string(step.port);
    }
    return text;
}

void datagram_record::hand_over_panic(datagram_state state, const char* call) const
{
    exec::panic("%s: datagram %p of pool '%s' %s: %s", call, static_cast<const void*>(this), pool.name().c_str(),
                text_of(state), history().c_str());
}

} // namespace stack

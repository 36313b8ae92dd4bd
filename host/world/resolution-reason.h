// Texts for people that say why a lookup has failed.
#pragma once

#include "host/world/resolution.h"

namespace world
{

inline constexpr const char* not_sent = "the request could not be sent: is a port active, and what does the log say?";
inline constexpr const char* sa_refusal = "the SA refused the question";

// Returns the reason for the status of a lookup; "" for ibat_stat_ok. `error_text` is the reason for ibat_stat_error
// and for all statuses that have no case here.
inline std::string reason_of(const resolution& answer, const char* error_text)
{
    switch (answer.status) {
    case ibat_stat_ok:
        return "";
    case ibat_stat_not_found: // IBAT also gives this status if the SA has several records: the SA then returns none
        return answer.from_cache ? "the SA named no owner a moment ago" : "the SA names no owner";
    case ibat_stat_timeout:
        return "the SA did not answer in time";
    default:
        return error_text;
    }
}

} // namespace world

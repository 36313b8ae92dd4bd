// The steps of `ats demo`, in order. Each step does one thing and prints a few lines about it. It throws step_failed if
// the hosts do not behave as expected.
#pragma once

#include "cli/demo/demo-stage.h"

namespace cli
{

// ---- start ----
void load_modules(stage& stage);
void bring_links_up(stage& stage);

// ---- lookups ----
void resolve_both_ways(stage& stage);
void ask_for_an_unknown_address(stage& stage);
void ask_a_silent_sa(stage& stage);

// ---- changes and faults ----
void lose_the_active_port(stage& stage);
void lose_a_record(stage& stage);
void use_an_address_twice(stage& stage);
void change_address_at_a_silent_sa(stage& stage);
void change_name(stage& stage);

// ---- end ----
void leave_one_host(stage& stage);
void unload_modules(stage& stage);

} // namespace cli

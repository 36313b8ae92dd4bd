// The steps of `ats demo`, in their order. Each does one thing, tells about it, and fails when it did not happen.
#pragma once

#include "cli/demo/demo-stage.h"

namespace cli
{

// Bringing up.
void load_modules(stage& on);
void bring_links_up(stage& on);

// Looking up.
void resolve_both_ways(stage& on);
void ask_for_the_unknown(stage& on);
void ask_a_silent_sa(stage& on);

// Changing, and getting over what goes wrong.
void lose_the_active_port(stage& on);
void lose_a_record(stage& on);
void clash_addresses(stage& on);
void change_address_unheard(stage& on);
void change_name(stage& on);

// Leaving.
void leave(stage& on);
void unload_modules(stage& on);

} // namespace cli

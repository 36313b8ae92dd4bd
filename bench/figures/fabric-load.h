// Simulates a whole fabric, and measures the load on its SA. Settings define the speed of the SA. The settings for
// docs/scale.md are the times of OpenSM that bench/umad/sa-load.cpp measured.
#pragma once

#include <string>
#include <vector>

// Runs the scenarios: power-on, rest, restarts of the SM, a hand-over to another SM, a silent SA, and a rack whose
// links flap. `hosts` is the number of hosts. `settings` are words "name=value"; load_settings in fabric-load.cpp lists
// the names. Prints one JSON object for each scenario. Returns the program's exit code, 1 if a host could not be
// started. Throws an exception of the standard library if a setting is wrong or a later scenario cannot be run.
int fabric_load(int hosts, const std::vector<std::string>& settings);

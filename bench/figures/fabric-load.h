// The load of a whole fabric on its SA, simulated with an SA of the measured speed.
#pragma once

#include <string>
#include <vector>

// Runs HOSTS hosts through a power-on, SM restarts, a hand-over, a silent SA and a flapping rack. `settings` are words
// "name=value"; see the source. Prints one JSON object for each scenario. Returns the program's exit code.
int fabric_load(int hosts, const std::vector<std::string>& settings);

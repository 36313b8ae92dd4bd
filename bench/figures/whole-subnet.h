// Measures a whole subnet whose hosts all run in this process, and compares the figures with their limits.
#pragma once

#include "bench/bench-world.h"

// Measures how `hosts` hosts start, register, ask for addresses, and unload. Prints each figure beside its limit.
// Returns the program's exit code.
int whole_subnet(int hosts);

// Prints `error`, which stopped a measurement, and unloads the loaded modules. Returns the program's exit code.
int give_up(bench_world& world, const ats::error& error);

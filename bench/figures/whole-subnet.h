// Measures a whole subnet whose hosts all run in this process, and prints the figures beside their limits.
#pragma once

#include "bench/bench-world.h"

// Measures how `hosts` hosts start, register, ask for addresses, and unload. Prints the figures, most of them beside a
// limit. Returns the program's exit code: 1 after an error, otherwise 0, even if a figure exceeds its limit. Throws
// std::runtime_error if a lookup fails, or if the small subnet for comparison does not start.
int whole_subnet(int hosts);

// Prints `error`, which stopped a measurement, and unloads the loaded modules. Returns the program's exit code.
int give_up(bench_world& world, const ats::error& error);

// The figures of a subnet with all its hosts in one process, beside their limits.
#pragma once

#include "bench/bench-world.h"

// Every host starts, registers, asks for addresses, and is unloaded. Prints each figure beside its limit. Returns the
// program's exit code.
int whole_subnet(int hosts);

// Prints the error of a world that did not come up, and unloads the loaded modules. Returns the program's exit code.
int give_up(bench_world& world, const ats::error& error);

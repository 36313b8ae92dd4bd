// Measures the memory and the processor time of this process.
#pragma once

#include <cstddef>

// Returns the memory of this process in bytes, with its page tables. A page that this process maps several times counts
// once. A page that other processes map, too, counts in part (Pss of proc(5)).
double memory_bytes();

size_t mapping_count();

double processor_seconds();

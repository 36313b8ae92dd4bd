// Measures the memory and the processor time of this process.
#pragma once

#include <cstddef>

// Returns the memory of this process in bytes, with its page tables. A page that is mapped several times counts once
// (Pss of proc(5)).
double memory_bytes();

size_t mapping_count();

double processor_seconds();

// Measures the memory and the processor time of this process.
#pragma once

#include <cstddef>

// The memory in bytes. Pages that several places share count once (Pss), and page tables count, too.
double memory_bytes();

size_t mapping_count();

double processor_seconds();

// The kernel clock: it counts 1000 ticks a second and starts at an arbitrary number.
#pragma once

#include "kernel/export.h"

constexpr unsigned long HZ = 1000;

// The current tick count. Any context.
KERNEL_API unsigned long get_jiffies();
#define jiffies get_jiffies()

// The kernel clock: 1000 ticks a second. Its first tick is an arbitrary number.
#pragma once

#include "kernel/export.h"

constexpr unsigned long HZ = 1000;

// The current tick count. Any context.
KERNEL_API unsigned long get_jiffies();
#define jiffies get_jiffies()

// The kernel clock: ticks, 1000 a second, starting at an arbitrary number.
#pragma once

#include "kernel/export.h"

constexpr unsigned long HZ = 1000;

// The current tick count. Any context.
KERNEL_API unsigned long get_jiffies();
#define jiffies get_jiffies()

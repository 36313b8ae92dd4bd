// The kernel log.
#pragma once

#include "kernel/export.h"

// Appends one formatted text to the machine's log, with the current tick. A leading "<n>" (n from 0 to 7) is its
// priority, otherwise the default priority holds. Texts are kept as they are: a text without a line end is
// continued by the next one. May be called from any context; does not sleep. Texts beyond 2047 bytes are cut, but keep
// the line end that the format has.
KERNEL_API void printk(const char* format, ...) __attribute__((format(printf, 1, 2)));

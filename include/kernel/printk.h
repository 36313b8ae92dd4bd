// The kernel log.
#pragma once

#include "kernel/export.h"

// Appends one formatted text to the machine's log, with the current tick. "<n>" at the start (n from 0 to 7) sets the
// priority of the line; without it, the line has the default priority. A text without "\n" at its end leaves the line
// open, and the text of the next call continues the line. A text is cut to 2047 bytes; if the format ends with "\n",
// the cut text also does. Any context.
KERNEL_API void printk(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The kernel log.
#pragma once

#include "kernel/export.h"

// Appends one formatted text to the machine's log, with the current tick. A leading "<n>" (n from 0 to 7) sets its
// priority; without it, the text has the default priority. If a text does not end its line, the next text continues
// that line. A text is cut to 2047 bytes, but keeps the line end of its format. Any context.
KERNEL_API void printk(const char* format, ...) __attribute__((format(printf, 1, 2)));

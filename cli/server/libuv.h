// Includes libuv. Its system headers define a macro HZ. This file removes the macro, because include/kernel/time.h has
// a constant with the name HZ.
#pragma once

#include <uv.h>

#undef HZ

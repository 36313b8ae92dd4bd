// Includes libuv, and removes the macro HZ of its system headers: the kernel's interface uses the name HZ here.
#pragma once

#include <uv.h>

#undef HZ

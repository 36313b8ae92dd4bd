// libuv, without the macro HZ that its system headers define: HZ is a name of the kernel's interface here.
#pragma once

#include <uv.h>

#undef HZ

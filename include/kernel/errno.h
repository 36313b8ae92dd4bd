// Error numbers of kernel calls. The calls return them negated.
#pragma once

constexpr int EK_NOENT = 2;        // no such entry
constexpr int EK_NXIO = 6;         // no such device
constexpr int EK_NOMEM = 12;       // out of memory
constexpr int EK_BUSY = 16;        // in use
constexpr int EK_EXIST = 17;       // exists already
constexpr int EK_INVAL = 22;       // invalid argument
constexpr int EK_RESTARTSYS = 512; // a signal interrupted the call

// Formats texts like printk of a Linux 2.6 kernel. It differs from printf(3): "%p" without a width prints 16
// hexadecimal digits without a prefix. "%#x" prints the prefix for zero, too. The flag 0 pads with zeros even if there
// is a precision. The size 'L' means that an integer is a long long.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace kernel
{

// Returns the number that "%p" prints for a pointer.
using pointer_value_fn = uint64_t (*)(const void* pointer);

// Writes the text into `buffer`, cut to `size` bytes including its NUL. `size` is at least 1. Returns the length of the
// whole text, without the NUL. The conversions are d i u x X o c s p %, with the flags - + space # 0, a width, a
// precision, and the sizes hh h l ll L z t. A null text is printed as "<NULL>". An unknown conversion is printed
// unchanged. It uses no argument, except one for each '*' in it.
size_t format_text(char* buffer, size_t size, const char* format, va_list arguments, pointer_value_fn value_of);

} // namespace kernel

#include "host/kernel/format.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kernel
{

namespace
{

constexpr size_t longest_digits = 22; // of 64 bits, in octal
constexpr int pointer_digits = 2 * sizeof(void*);
constexpr int none = -1;

// Takes characters beyond its end too, but only counts them.
class text_writer
{
  public:
    text_writer(char* begin, size_t size) : begin_(begin), room_(size - 1) {}

    void put(char c)
    {
        if (length_ < room_) begin_[length_] = c;
        ++length_;
    }

    void put(const char* text, size_t count)
    {
        if (length_ < room_) std::memcpy(begin_ + length_, text, std::min(count, room_ - length_));
        length_ += count;
    }

    void fill(char c, int count)
    {
        for (; count > 0; --count) put(c);
    }

    // Ends the text and returns its whole length.
    size_t finish()
    {
        begin_[std::min(length_, room_)] = '\0';
        return length_;
    }

  private:
    char* const begin_;
    const size_t room_; // without the NUL
    size_t length_ = 0;
};

// The flags, width and size between a '%' and its conversion letter.
struct conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool prefix = false;
    bool zeros = false;
    int width = none;
    int precision = none;
    char size = 0; // 'h', 'l', 'z' or 't'; 'H' for hh, 'L' for ll and L
};

bool take_flag(char c, conversion& how)
{
    switch (c) {
    case '-':
        return how.left = true;
    case '+':
        return how.plus = true;
    case ' ':
        return how.space = true;
    case '#':
        return how.prefix = true;
    case '0':
        return how.zeros = true;
    default:
        return false;
    }
}

// The digits at `*format`, which moves behind them.
int take_number(const char** format)
{
    constexpr int largest = 65536; // longer texts are cut anyway
    int number = 0;
    for (; **format >= '0' && **format <= '9'; ++*format) number = std::min(number * 10 + (**format - '0'), largest);
    return number;
}

char take_size(const char** format)
{
    const char size = **format;
    if (size == '\0' || !std::strchr("hlLzt", size)) return 0;
    ++*format;
    if ((size != 'h' && size != 'l') || **format != size) return size;
    ++*format;
    return size == 'h' ? 'H' : 'L';
}

void put_padded(text_writer& to, const char* text, size_t count, const conversion& how)
{
    const int padding = how.width - static_cast<int>(count);
    if (!how.left) to.fill(' ', padding);
    to.put(text, count);
    if (how.left) to.fill(' ', padding);
}

// A number with its `sign` (0: none), in the base that the conversion `letter` says.
void put_number(text_writer& to, uint64_t number, char sign, char letter, const conversion& how)
{
    const char* set = letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    const unsigned base = letter == 'x' || letter == 'X' ? 16 : letter == 'o' ? 8 : 10;
    char digits[longest_digits];
    char* first = digits + sizeof digits;
    do {
        *--first = set[number % base];
        number /= base;
    } while (number != 0);
    const int count = static_cast<int>(digits + sizeof digits - first);

    char front[3];
    int front_count = 0;
    if (sign != 0) front[front_count++] = sign;
    if (how.prefix && base != 10) front[front_count++] = '0';
    if (how.prefix && base == 16) front[front_count++] = letter;

    int zeros = std::max(how.precision - count, 0);
    int padding = std::max(how.width - front_count - zeros - count, 0);
    if (how.zeros && !how.left) zeros += std::exchange(padding, 0);
    if (!how.left) to.fill(' ', padding);
    to.put(front, static_cast<size_t>(front_count));
    to.fill('0', zeros);
    to.put(first, static_cast<size_t>(count));
    if (how.left) to.fill(' ', padding);
}

// The arguments of a format, one after the other. A va_list cannot be passed on as a reference, but a member can be.
struct argument_list {
    va_list next;

    uint64_t take_unsigned(char size)
    {
        switch (size) {
        case 'H':
            return static_cast<unsigned char>(va_arg(next, int));
        case 'h':
            return static_cast<unsigned short>(va_arg(next, int));
        case 'l':
        case 'z':
        case 't':
            return va_arg(next, unsigned long);
        case 'L':
            return va_arg(next, unsigned long long);
        default:
            return va_arg(next, unsigned);
        }
    }

    int64_t take_signed(char size)
    {
        const uint64_t bits = take_unsigned(size);
        switch (size) {
        case 'H':
            return static_cast<signed char>(bits);
        case 'h':
            return static_cast<short>(bits);
        case 0:
            return static_cast<int>(bits);
        default:
            return static_cast<int64_t>(bits);
        }
    }
};

// Flags, width, precision and size at `*format`, which moves behind them.
conversion take_conversion(const char** format, argument_list& arguments)
{
    conversion how;
    while (take_flag(**format, how)) ++*format;
    const auto number_or_argument = [&] {
        if (**format != '*') return take_number(format);
        ++*format;
        return va_arg(arguments.next, int);
    };
    if (**format == '*' || (**format >= '1' && **format <= '9')) how.width = number_or_argument();
    if (how.width < none) {
        how.left = true;
        how.width = -how.width;
    }
    if (**format == '.') {
        ++*format;
        how.precision = std::max(number_or_argument(), 0);
    }
    how.size = take_size(format);
    return how;
}

void put_text(text_writer& to, const char* text, const conversion& how)
{
    if (!text) text = "<NULL>";
    put_padded(to, text, how.precision < 0 ? std::strlen(text) : strnlen(text, static_cast<size_t>(how.precision)),
               how);
}

void put_signed(text_writer& to, int64_t number, const conversion& how)
{
    const bool is_negative = number < 0;
    const auto bits = static_cast<uint64_t>(number);
    put_number(to, is_negative ? -bits : bits, is_negative ? '-' : how.plus ? '+' : how.space ? ' ' : '\0', 'd', how);
}

void put_pointer(text_writer& to, uint64_t value, conversion how)
{
    if (how.width == none) {
        how.width = pointer_digits;
        how.zeros = true;
    }
    put_number(to, value, 0, 'x', how);
}

// False: there is no such conversion.
bool put_argument(text_writer& to, char letter, const conversion& how, argument_list& arguments,
                  pointer_value_fn value_of)
{
    switch (letter) {
    case 'd':
    case 'i':
        put_signed(to, arguments.take_signed(how.size), how);
        return true;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        put_number(to, arguments.take_unsigned(how.size), 0, letter, how);
        return true;
    case 'p':
        put_pointer(to, value_of(va_arg(arguments.next, void*)), how);
        return true;
    case 's':
        put_text(to, va_arg(arguments.next, const char*), how);
        return true;
    case 'c': {
        const char c = static_cast<char>(va_arg(arguments.next, int));
        put_padded(to, &c, 1, how);
        return true;
    }
    case '%':
        to.put('%');
        return true;
    default:
        return false;
    }
}

} // namespace

size_t format_text(char* buffer, size_t size, const char* format, va_list arguments, pointer_value_fn value_of)
{
    text_writer to(buffer, size);
    argument_list taken;
    va_copy(taken.next, arguments);
    for (;;) {
        const char* percent = strchrnul(format, '%');
        to.put(format, static_cast<size_t>(percent - format));
        if (*percent == '\0') break;
        format = percent + 1;
        const conversion how = take_conversion(&format, taken);
        if (put_argument(to, *format, how, taken, value_of))
            ++format;
        else
            to.put(percent, static_cast<size_t>(format - percent)); // the letter follows as plain text
    }
    va_end(taken.next);
    return to.finish();
}

} // namespace kernel

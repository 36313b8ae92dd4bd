#include "host/kernel/format.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace kernel
{

namespace
{

constexpr size_t longest_digits = 22; // number of digits of 64 bits in octal
constexpr int pointer_digits = 2 * sizeof(void*);
constexpr int none = -1;

// Writes into a buffer. Characters that do not fit are only counted.
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

// The flags, width, precision and size between a '%' and its conversion letter.
struct conversion {
    bool is_left = false;    // '-'
    bool has_plus = false;   // '+'
    bool has_space = false;  // ' '
    bool has_prefix = false; // '#'
    bool has_zeros = false;  // '0'
    int width = none;
    int precision = none;
    char size = 0; // 'h', 'l', 'z' or 't'; 'H' for hh, 'L' for ll and L; 0 if there is none
};

// Returns false if the character is not a flag.
bool take_flag(char c, conversion& form)
{
    switch (c) {
    case '-':
        form.is_left = true;
        break;
    case '+':
        form.has_plus = true;
        break;
    case ' ':
        form.has_space = true;
        break;
    case '#':
        form.has_prefix = true;
        break;
    case '0':
        form.has_zeros = true;
        break;
    default:
        return false;
    }
    return true;
}

// Reads the number at `*format` and moves `*format` behind it.
int take_number(const char** format)
{
    constexpr int largest = 65536; // the limit avoids an overflow of `number`; no buffer is so long
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

void put_padded(text_writer& writer, const char* text, size_t count, const conversion& form)
{
    const int padding = form.width - static_cast<int>(count);
    if (!form.is_left) writer.fill(' ', padding);
    writer.put(text, count);
    if (form.is_left) writer.fill(' ', padding);
}

unsigned base_of(char letter)
{
    switch (letter) {
    case 'x':
    case 'X':
        return 16;
    case 'o':
        return 8;
    default:
        return 10;
    }
}

// Prints a number with its `sign` (0 means no sign) in the base of the conversion `letter`.
void put_number(text_writer& writer, uint64_t number, char sign, char letter, const conversion& form)
{
    const char* set = letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    const unsigned base = base_of(letter);
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
    if (form.has_prefix && base != 10) front[front_count++] = '0';
    if (form.has_prefix && base == 16) front[front_count++] = letter;

    int zeros = std::max(form.precision - count, 0);
    int padding = std::max(form.width - front_count - zeros - count, 0);
    if (form.has_zeros && !form.is_left) {
        zeros += padding;
        padding = 0;
    }
    if (!form.is_left) writer.fill(' ', padding);
    writer.put(front, static_cast<size_t>(front_count));
    writer.fill('0', zeros);
    writer.put(first, static_cast<size_t>(count));
    if (form.is_left) writer.fill(' ', padding);
}

// The arguments of a format, in order. The struct can be passed by reference. A va_list cannot, because it is an array
// on some processors.
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
        // clang-tidy 14 reports the next two branches as equal. But their types differ.
        case 'L': // NOLINT(bugprone-branch-clone)
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

// Reads flags, width, precision and size at `*format` and moves `*format` behind them. Each '*' takes its number from
// `arguments`.
conversion take_conversion(const char** format, argument_list& arguments)
{
    conversion form;
    while (take_flag(**format, form)) ++*format;
    const auto number_or_argument = [&] {
        if (**format != '*') return take_number(format);
        ++*format;
        return va_arg(arguments.next, int);
    };
    if (**format == '*' || (**format >= '1' && **format <= '9')) form.width = number_or_argument();
    if (form.width < none) {
        form.is_left = true;
        form.width = form.width == INT_MIN ? INT_MAX : -form.width;
    }
    if (**format == '.') {
        ++*format;
        form.precision = std::max(number_or_argument(), 0);
    }
    form.size = take_size(format);
    return form;
}

void put_text(text_writer& writer, const char* text, const conversion& form)
{
    if (!text) text = "<NULL>";
    const size_t limit = form.precision < 0 ? SIZE_MAX : static_cast<size_t>(form.precision);
    put_padded(writer, text, strnlen(text, limit), form);
}

void put_signed(text_writer& writer, int64_t number, const conversion& form)
{
    const bool is_negative = number < 0;
    const auto bits = static_cast<uint64_t>(number);
    char sign = '\0';
    if (is_negative)
        sign = '-';
    else if (form.has_plus)
        sign = '+';
    else if (form.has_space)
        sign = ' ';
    put_number(writer, is_negative ? -bits : bits, sign, 'd', form);
}

void put_pointer(text_writer& writer, uint64_t value, conversion form)
{
    if (form.width == none) {
        form.width = pointer_digits;
        form.has_zeros = true;
    }
    put_number(writer, value, 0, 'x', form);
}

// Prints the next argument with the conversion `letter`. Returns false, and prints nothing, if there is no such
// conversion.
bool put_argument(text_writer& writer, char letter, const conversion& form, argument_list& arguments,
                  pointer_value_fn value_of)
{
    switch (letter) {
    case 'd':
    case 'i':
        put_signed(writer, arguments.take_signed(form.size), form);
        return true;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        put_number(writer, arguments.take_unsigned(form.size), 0, letter, form);
        return true;
    case 'p':
        put_pointer(writer, value_of(va_arg(arguments.next, void*)), form);
        return true;
    case 's':
        put_text(writer, va_arg(arguments.next, const char*), form);
        return true;
    case 'c': {
        const char c = static_cast<char>(va_arg(arguments.next, int));
        put_padded(writer, &c, 1, form);
        return true;
    }
    case '%':
        writer.put('%');
        return true;
    default:
        return false;
    }
}

} // namespace

size_t format_text(char* buffer, size_t size, const char* format, va_list arguments, pointer_value_fn value_of)
{
    text_writer writer(buffer, size);
    argument_list list;
    va_copy(list.next, arguments);
    for (;;) {
        const char* percent = strchrnul(format, '%');
        writer.put(format, static_cast<size_t>(percent - format));
        if (*percent == '\0') break;
        format = percent + 1;
        const conversion form = take_conversion(&format, list);
        if (put_argument(writer, *format, form, list, value_of))
            ++format;
        else
            writer.put(percent, static_cast<size_t>(format - percent)); // the letter is then printed as plain text
    }
    va_end(list.next);
    return writer.finish();
}

} // namespace kernel

#include "host/world/printable.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace world
{

namespace
{

struct character {
    size_t bytes = 1;
    uint32_t code = 0;
    bool is_valid = false; // false for a single byte that does not begin a valid UTF-8 character
};

bool continues(char byte)
{
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// Returns the first character of `text`, which must not be empty. RFC 3629 allows only the shortest form of a
// character, and no surrogates.
character first_of(std::string_view text)
{
    constexpr struct {
        uint8_t mask, lead;
        size_t bytes;
        uint32_t least;
    } forms[] = {{0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};
    constexpr uint32_t first_surrogate = 0xD800, last_surrogate = 0xDFFF, last_code = 0x10FFFF;
    const auto lead = static_cast<uint8_t>(text[0]);
    for (const auto& form : forms) {
        if ((lead & form.mask) != form.lead) continue;
        if (text.size() < form.bytes || !std::ranges::all_of(text.substr(1, form.bytes - 1), continues)) return {};
        uint32_t code = lead & static_cast<uint8_t>(~form.mask);
        for (size_t i = 1; i < form.bytes; ++i) code = code << 6 | (static_cast<uint8_t>(text[i]) & 0x3F);
        if (code < form.least || code > last_code || (code >= first_surrogate && code <= last_surrogate)) return {};
        return {form.bytes, code, true};
    }
    return {};
}

// Returns true for control characters, line separators, paragraph separators and marks of the writing direction.
bool is_control(uint32_t code)
{
    constexpr struct {
        uint32_t first, last;
    } ranges[] = {{0x00, 0x1F}, {0x7F, 0x9F}, {0x61C, 0x61C}, {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};
    return std::ranges::any_of(ranges, [&](const auto& range) { return code >= range.first && code <= range.last; });
}

// Returns the text with each character replaced by the result of show(character, bytes).
template <class show_t>
std::string replace_characters(std::string_view text, const show_t& show)
{
    std::string result;
    while (!text.empty()) {
        const character next = first_of(text);
        result += show(next, text.substr(0, next.bytes));
        text.remove_prefix(next.bytes);
    }
    return result;
}

std::string format_number(const char* format, unsigned number)
{
    char text[16];
    std::snprintf(text, sizeof text, format, number);
    return text;
}

std::string escape_bytes(std::string_view bytes)
{
    std::string result;
    for (const char byte : bytes) result += format_number("\\x%02x", static_cast<uint8_t>(byte));
    return result;
}

} // namespace

bool is_printable(std::string_view text)
{
    return printable(text) == text;
}

std::string printable(std::string_view text)
{
    return replace_characters(text, [](const character& each, std::string_view bytes) {
        return each.is_valid && !is_control(each.code) ? std::string(bytes) : escape_bytes(bytes);
    });
}

std::string printable_lines(std::string_view text)
{
    return replace_characters(text, [](const character&, std::string_view bytes) {
        return bytes == "\n" || bytes == "\t" ? std::string(bytes) : printable(bytes);
    });
}

std::string printable_json(std::string_view document)
{
    return replace_characters(document, [](const character& each, std::string_view bytes) {
        return each.code != '\n' && is_control(each.code) ? format_number("\\u%04x", each.code) : std::string(bytes);
    });
}

std::string cut_to_bytes(std::string_view text, size_t limit)
{
    if (text.size() <= limit) return std::string(text);
    size_t end = limit;
    while (end > 0 && continues(text[end])) --end;
    return std::string(text.substr(0, end));
}

size_t columns_of(std::string_view text)
{
    return static_cast<size_t>(std::ranges::count_if(text, [](char byte) { return !continues(byte); }));
}

std::string cut_to_columns(std::string_view text, size_t limit)
{
    size_t end = 0;
    for (size_t columns = 0; end < text.size(); ++end)
        if (!continues(text[end]) && ++columns > limit) break;
    return std::string(text.substr(0, end));
}

} // namespace world

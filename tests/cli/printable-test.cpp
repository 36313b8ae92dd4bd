// Texts from outside are printed. Control characters must be escaped, and readable text must not change.
#include <gtest/gtest.h>

#include "host/world/printable.h"

namespace
{

TEST(printable, shows_readable_characters_and_the_bytes_of_all_others)
{
    using namespace std::literals;
    const struct {
        std::string_view text;
        const char* shown;
        const char* as_json; // null for invalid UTF-8, which is not tested as JSON
    } cases[] = {
        {"node1 größe 節点 \U0001F5A7", "node1 größe 節点 \U0001F5A7", "node1 größe 節点 \U0001F5A7"},
        {"\x1b[31m\r\x7f\t", "\\x1b[31m\\x0d\\x7f\\x09", "\\u001b[31m\\u000d\\u007f\\u0009"},
        {"\u009b1m\u202eab", "\\xc2\\x9b1m\\xe2\\x80\\xaeab", "\\u009b1m\\u202eab"},
        {"\xff\xc3"sv, "\\xff\\xc3", nullptr},                            // an invalid first byte, a truncated sequence
        {"\xc0\xaf\xed\xa0\x80"sv, "\\xc0\\xaf\\xed\\xa0\\x80", nullptr}, // an overlong encoding, a surrogate
        {"\xf4\x90\x80\x80|\0"sv, "\\xf4\\x90\\x80\\x80|\\x00", nullptr}, // beyond U+10FFFF
    };
    for (const auto& each : cases) {
        EXPECT_EQ(world::printable(each.text), each.shown);
        EXPECT_EQ(world::is_printable(each.text), each.text == each.shown);
        if (each.as_json) {
            EXPECT_EQ(world::printable_json(each.text), each.as_json);
        }
    }
    EXPECT_EQ(world::printable_lines("a\n\tb\r"), "a\n\tb\\x0d");
}

} // namespace

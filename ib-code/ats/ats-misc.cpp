// Converts text to addresses and GIDs, and port states to text.
#define ATS_TRACE_UNIT "ats_misc.cpp"

#include <cstring>

#include "ats.h"
#include "debug-support.h"

namespace
{

constexpr size_t longest_ip_text = 18; // an address has at most 15 characters; other text may follow each number
constexpr int32_t ip_fields = 4;
constexpr uint32_t refused_field = 0xFFFFFFFF; // a field with this value in its low 32 bits is refused

constexpr size_t gid_prefix_length = 2; // "0x"
constexpr size_t longest_gid_text = gid_prefix_length + 2 * sizeof(kq_gid_t);

// Reads the decimal number at the start of a field. Returns 0 if there are no digits. The number cannot overflow: a
// text has at most 18 characters.
uint64_t read_field(const char* field)
{
    uint64_t value = 0;
    for (; *field >= '0' && *field <= '9'; ++field) value = 10 * value + static_cast<uint64_t>(*field - '0');
    return value;
}

// Returns the value of a hexadecimal digit. Returns -1 for other characters.
int32_t digit_value(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

ibat_stat_t ats_parseipstr(const char* s, uint32_t* ip)
{
    if (strnlen(s, longest_ip_text + 1) > longest_ip_text) return ibat_stat_error;
    uint8_t octets[ip_fields];
    const char* field = s;
    for (int32_t i = 0; i < ip_fields; ++i) {
        if (!field) return ibat_stat_error; // the text has ended
        const uint64_t value = read_field(field);
        if (static_cast<uint32_t>(value) == refused_field) return ibat_stat_error;
        octets[i] = static_cast<uint8_t>(value);
        field = strchr(field, '.');
        if (field) ++field;
    }
    memcpy(ip, octets, sizeof octets);
    return ibat_stat_ok;
}

ibat_stat_t ats_parsegidstr(char* s, kq_gid_t* gid)
{
    *gid = {};
    const size_t length = strlen(s);
    if (length > longest_gid_text || length <= gid_prefix_length) {
        ATS_ERROR("The gid string is too long or too short\n");
        return ibat_stat_error;
    }
    if (s[0] != '0' || s[1] != 'x') {
        ATS_ERROR("The gid string should start with 0x\n");
        return ibat_stat_error;
    }
    const char* digits = s + gid_prefix_length;
    if ((length - gid_prefix_length) % 2 != 0) { // replace the "x" by a leading zero, to get whole bytes
        s[1] = '0';
        --digits;
    }
    auto* bytes = reinterpret_cast<uint8_t*>(gid);
    for (size_t i = strlen(digits) / 2; i > 0; digits += 2) {
        const int32_t high = digit_value(digits[0]), low = digit_value(digits[1]);
        if (high < 0 || low < 0) {
            ATS_ERROR("Invalid character found in gid address.\n");
            return ibat_stat_error;
        }
        bytes[--i] = static_cast<uint8_t>(16 * high + low);
    }
    return ibat_stat_ok;
}

const char* ats_port_state2str(ats_port_state_t state)
{
    switch (state) {
    case ATS_PORT_DOWN:
        return "Down";
    case ATS_PORT_UP:
        return "UP";
    case ATS_PORT_ACTIVE:
        return "Active";
    }
    return "Unknown";
}

#include "client/protocol.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

#include <nlohmann/json.hpp>

namespace client
{

namespace
{

using json = nlohmann::json;

// Returns true if the line has lists and objects in each other beyond the limit. (A callback of json::parse() could
// also count the levels, but parsing with a callback takes quadratic time for a long list of objects.)
bool is_too_deep(std::string_view line)
{
    constexpr int most_levels = 16; // the status, the deepest answer, has 7
    int level = 0;
    bool is_in_text = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char character = line[i];
        if (character == '"') is_in_text = !is_in_text;
        if (is_in_text && character == '\\') ++i; // skip the escaped character, which may be a quote
        if (is_in_text) continue;
        if (character == '}' || character == ']') --level;
        if ((character == '{' || character == '[') && ++level > most_levels) return true;
    }
    return false;
}

// Parses a line. If the line is malformed or too deep, returns a value that is not an object. dump() and copies of a
// value call themselves for each level, and would overflow the stack.
json parse(std::string_view line)
{
    return is_too_deep(line) ? json() : json::parse(line, nullptr, false);
}

std::string dump(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Adds the members for the options. They are the same for all lookups.
void append_options(std::string& body, const ats_options_t& options)
{
    if (options.flags & ATS_CACHED_ONLY) body += R"(,"cached":true)";
    if (options.flags & ATS_VERIFY) body += R"(,"verify":true)";
    if (options.flags & ATS_FRESH) body += R"(,"fresh":true)";
    body += R"(,"within_ms":)" + std::to_string(options.timeout_ms);
    if (options.host) body += R"(,"host":)" + dump(options.host);
}

std::string address_text(int family, const void* bytes)
{
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, bytes, text, sizeof text);
}

std::string text_of(const json& object, const char* key)
{
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : "";
}

ats_source_t source_of(const json& object)
{
    const std::string source = text_of(object, "source");
    if (source == "cache") return ATS_SOURCE_CACHE;
    return source == "SA" ? ATS_SOURCE_SA : ATS_SOURCE_NONE;
}

ats_status_t status_of(const json& object)
{
    const std::string status = text_of(object, "status");
    if (status == "ok") return ATS_OK;
    if (status == "not found" || status == "not cached") return ATS_NOT_FOUND;
    if (status == "timed out") return ATS_NO_ANSWER;
    return status == "failed" ? ATS_REFUSED : ATS_INVALID;
}

int32_t verified_of(const json& object)
{
    const auto verified = object.find("verified");
    if (verified == object.end() || !verified->is_boolean()) return -1;
    return verified->get<bool>() ? 1 : 0;
}

void read_id(const json& object, reply& reply)
{
    const auto id = object.find("id");
    if (id == object.end() || !id->is_number_unsigned()) return;
    reply.has_id = true;
    reply.id = id->get<uint64_t>();
}

void read_error(const json& object, ats_answer_t& answer)
{
    answer.status = ATS_REFUSED;
    set_reason(answer, text_of(object, "error"));
}

// Reads a number. Returns false if the member is missing, is not a whole number from 0, or is too large for `number`.
template <class number_t>
bool read_number(const json& object, const char* key, number_t& number)
{
    const auto member = object.find(key);
    if (member == object.end() || !member->is_number_unsigned()) return false;
    const auto value = member->get<uint64_t>();
    number = static_cast<number_t>(value);
    return number == value;
}

// Reads a 16-bit number in a text like "0xFFFF". Returns false if the text has another form.
bool read_word(const json& object, const char* key, uint16_t& word)
{
    const std::string text = text_of(object, key);
    if (!text.starts_with("0x")) return false;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + 2, end, word, 16);
    return rest == end && error == std::errc();
}

// Reads a GID, a text of "0x" and 32 hexadecimal digits. Stores it in network order. Returns false if the text has
// another length or other digits.
bool read_gid(const json& object, const char* key, uint8_t (&gid)[16])
{
    const std::string text = text_of(object, key);
    if (text.size() != 2 + 2 * sizeof gid || !text.starts_with("0x")) return false;
    for (size_t i = 0; i < sizeof gid; ++i) {
        const char* const digits = text.data() + 2 + 2 * i;
        if (std::from_chars(digits, digits + 2, gid[i], 16).ptr != digits + 2) return false;
    }
    return true;
}

bool read_path(const json& object, ats_path_t& path)
{
    return read_gid(object, "sgid", path.sgid) && read_number(object, "dlid", path.dlid) &&
           read_number(object, "slid", path.slid) && read_word(object, "p_key", path.p_key) &&
           read_number(object, "sl", path.sl) && read_number(object, "mtu", path.mtu) &&
           read_number(object, "rate", path.rate) && read_number(object, "packet_lifetime", path.packet_lifetime) &&
           read_number(object, "hop_limit", path.hop_limit) && read_number(object, "flow_label", path.flow_label) &&
           read_number(object, "traffic_class", path.traffic_class);
}

// Reads the result: an address and its GID, and for a path also the fields of the path. A path to a GID has no address.
// Returns false if a field is missing or malformed.
bool read_found(const json& object, ats_answer_t& answer)
{
    const bool is_path = object.contains("dlid");
    const bool may_lack_address = is_path && !object.contains("address");
    return (may_lack_address || inet_pton(AF_INET, text_of(object, "address").c_str(), &answer.address) == 1) &&
           inet_pton(AF_INET6, text_of(object, "gid6").c_str(), answer.gid) == 1 &&
           (!is_path || read_path(object, answer.path));
}

void read_answer(const json& object, ats_answer_t& answer)
{
    answer.verified = -1;
    if (object.contains("error")) return read_error(object, answer);
    answer.status = status_of(object);
    answer.source = source_of(object);
    answer.verified = verified_of(object);
    const auto microseconds = object.find("microseconds");
    if (microseconds != object.end() && microseconds->is_number_unsigned())
        answer.microseconds = microseconds->get<uint64_t>();
    if (answer.status == ATS_OK && !read_found(object, answer)) answer.status = ATS_INVALID;
    if (answer.status == ATS_INVALID)
        set_reason(answer, "the service's answer is invalid: do the service and this library have the same version?");
    else
        set_reason(answer, text_of(object, "reason"));
}

} // namespace

std::string hello_line()
{
    return R"({"request":"hello","protocol":)" + std::to_string(protocol_version) + "}\n";
}

std::string lookup_body(const lookup& lookup, const ats_options_t& options)
{
    const char* key = lookup.family == AF_INET ? "address" : "gid";
    std::string body = std::string(R"({"request":")") + lookup.request + R"(",")" + key + R"(":")" +
                       address_text(lookup.family, lookup.subject) + "\"";
    append_options(body, options);
    return body;
}

std::string request_body(std::string_view request)
{
    json object = parse(request);
    if (!object.is_object()) return "";
    object.erase("id");
    std::string body = object.empty() ? "" : dump(object);
    if (!body.empty()) body.pop_back(); // the closing brace; line_of() adds it
    return body;
}

std::string line_of(const std::string& body, uint64_t id)
{
    return body + R"(,"id":)" + std::to_string(id) + "}\n";
}

reply read_reply(std::string_view line)
{
    reply reply;
    const json object = parse(line);
    reply.is_valid = object.is_object();
    if (!reply.is_valid) return reply;
    read_id(object, reply);
    read_answer(object, reply.answer);
    return reply;
}

reply read_request_line(std::string_view line, std::string& text)
{
    reply reply;
    json object = parse(line);
    reply.is_valid = object.is_object();
    if (!reply.is_valid) return reply;
    read_id(object, reply);
    object.erase("id");
    const bool is_of_log = object.contains("line") || object.contains("dropped");
    reply.is_last = !is_of_log || object.contains("error");
    text = dump(object);
    return reply;
}

std::string hello_refusal(std::string_view line)
{
    const json object = parse(line);
    if (!object.is_object()) return "the program that listens there does not use the protocol of ats";
    if (object.contains("error")) return text_of(object, "error");
    if (object.value("protocol", json()) == protocol_version) return "";
    return "the service speaks another version of the protocol: install the library of its version";
}

void set_reason(ats_answer_t& answer, std::string_view text)
{
    size_t length = std::min(text.size(), sizeof answer.reason - 1);
    const auto is_inside_character = [&] { return length < text.size() && (text[length] & 0xC0) == 0x80; };
    while (length > 0 && is_inside_character()) --length;
    std::memcpy(answer.reason, text.data(), length);
    answer.reason[length] = '\0';
}

} // namespace client

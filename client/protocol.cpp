#include "client/protocol.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

#include <nlohmann/json.hpp>

namespace client
{

namespace
{

using json = nlohmann::json;

std::string dump(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Adds the members that both questions share.
void append_options(std::string& body, const ats_options_t& options)
{
    if (options.flags & ATS_CACHED_ONLY) body += R"(,"cached":true)";
    if (options.flags & ATS_VERIFY) body += R"(,"verify":true)";
    if (options.flags & ATS_FRESH) body += R"(,"fresh":true)";
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
    if (answer.status == ATS_OK) {
        const bool is_complete = inet_pton(AF_INET, text_of(object, "address").c_str(), &answer.address) == 1 &&
                                 inet_pton(AF_INET6, text_of(object, "gid6").c_str(), answer.gid) == 1;
        if (!is_complete) answer.status = ATS_INVALID;
    }
    if (answer.status == ATS_INVALID)
        set_reason(answer, "the service's answer makes no sense: are it and this library of one version?");
    else
        set_reason(answer, text_of(object, "reason"));
}

} // namespace

std::string hello_line()
{
    return R"({"request":"hello","protocol":)" + std::to_string(protocol_version) + "}\n";
}

std::string resolve_body(uint32_t address, const ats_options_t& options)
{
    std::string body = R"({"request":"resolve","address":")" + address_text(AF_INET, &address) + "\"";
    append_options(body, options);
    return body;
}

std::string reverse_body(const uint8_t gid[16], const ats_options_t& options)
{
    std::string body = R"({"request":"reverse","gid":")" + address_text(AF_INET6, gid) + "\"";
    append_options(body, options);
    return body;
}

std::string request_body(std::string_view request)
{
    json object = json::parse(request, nullptr, false);
    if (!object.is_object()) return "";
    object.erase("id");
    std::string body = object.empty() ? "" : dump(object);
    if (!body.empty()) body.pop_back(); // line_of() closes it
    return body;
}

std::string line_of(const std::string& body, uint64_t id)
{
    return body + R"(,"id":)" + std::to_string(id) + "}\n";
}

reply read_reply(std::string_view line)
{
    reply reply;
    const json object = json::parse(line, nullptr, false);
    reply.is_valid = object.is_object();
    if (!reply.is_valid) return reply;
    read_id(object, reply);
    read_answer(object, reply.answer);
    return reply;
}

reply read_request_line(std::string_view line, std::string& text)
{
    reply reply;
    json object = json::parse(line, nullptr, false);
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
    const json object = json::parse(line, nullptr, false);
    if (!object.is_object()) return "what listens there does not speak the protocol of ats";
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

#include "cli/acm/messages.h"

#include <algorithm>
#include <cstring>

namespace acm
{

namespace
{

template <class record_t>
record_t record_at(message_view bytes, size_t offset)
{
    record_t record;
    std::memcpy(&record, bytes.data() + offset, sizeof record);
    return record;
}

template <class record_t>
void append(message& message, const record_t& record)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    message.insert(message.end(), bytes, bytes + sizeof record);
}

// Returns the length that the header of a message contains.
size_t stated_length(message_view bytes)
{
    if (opcode_of(bytes) == opcode_resolve) return record_at<resolve_header>(bytes, 0).length;
    return from_wire(record_at<query_header>(bytes, 0).length);
}

std::string text_of(const entry& entry)
{
    const auto* begin = reinterpret_cast<const char*>(entry.content);
    return {begin, strnlen(begin, sizeof entry.content)};
}

// Returns the source or destination that an entry names. Returns std::nullopt if the entry has neither a name nor an
// IPv4 address.
std::optional<path_end> path_end_of(const entry& entry)
{
    if (entry.type == type_name) return text_of(entry);
    if (entry.type != type_ipv4) return std::nullopt;
    uint32_t ip = 0;
    std::memcpy(&ip, entry.content, sizeof ip);
    return ip;
}

// Adds the content of an entry to the request. Returns `success`, or the status with which to refuse the request.
status add(const entry& entry, resolve_request& request)
{
    request.is_cache_only |= (entry.flags & flag_no_delay) != 0;
    request.is_fresh |= (entry.flags & flag_query_sa) != 0;
    if (entry.type == type_path) {
        path_record path;
        std::memcpy(&path, entry.content, sizeof path);
        request.path = path;
        return status::success;
    }
    const bool is_source = (entry.flags & flag_source) != 0;
    if (!is_source && (entry.flags & flag_destination) == 0) return status::invalid;
    const std::optional<path_end> end = path_end_of(entry);
    if (!end) return is_source ? status::wrong_source_type : status::wrong_destination_type;
    (is_source ? request.source : request.destination) = *end;
    return status::success;
}

// Returns the header of the answer to a query. `content_size` is the number of bytes that follow the header.
query_header query_answer_header(message_view request, status status, size_t content_size)
{
    auto header = record_at<query_header>(request, 0);
    header.opcode |= opcode_answer;
    header.status = static_cast<uint8_t>(status);
    header.length = to_wire(static_cast<uint16_t>(sizeof header + content_size));
    return header;
}

message resolve_answer_of(message_view request, status status, std::span<const entry> entries)
{
    auto header = record_at<resolve_header>(request, 0);
    header.opcode |= opcode_answer;
    header.status = static_cast<uint8_t>(status);
    header.length = static_cast<uint16_t>(sizeof header + entries.size_bytes());
    message answer;
    answer.reserve(header.length);
    append(answer, header);
    for (const entry& entry : entries) append(answer, entry);
    return answer;
}

} // namespace

uint8_t opcode_of(message_view request)
{
    return record_at<resolve_header>(request, 0).opcode;
}

std::optional<size_t> length_of(message_view bytes)
{
    if (bytes.empty()) return 0;
    if (bytes[0] != protocol_version) return std::nullopt;
    if (bytes.size() < sizeof(resolve_header)) return 0;
    const uint8_t opcode = opcode_of(bytes);
    if (opcode < opcode_resolve || opcode > opcode_endpoint) return std::nullopt;
    const size_t length = stated_length(bytes);
    const bool is_whole_entries =
        length >= sizeof(resolve_header) && (length - sizeof(resolve_header)) % sizeof(entry) == 0;
    if (!is_whole_entries || length > longest_message) return std::nullopt;
    return length;
}

read_request read_resolve(message_view bytes)
{
    read_request result;
    for (size_t offset = sizeof(resolve_header); offset < bytes.size(); offset += sizeof(entry)) {
        result.status = add(record_at<entry>(bytes, offset), result.request);
        if (result.status != status::success) return result;
    }
    const bool has_destination = !std::holds_alternative<std::monostate>(result.request.destination);
    if (!has_destination && !result.request.path) result.status = status::wrong_destination;
    return result;
}

message resolve_answer(message_view request, const route& route)
{
    if (route.status != status::success) return refusal(request, route.status);
    std::array<entry, 2> entries{};
    entries[0].flags = path_flag_gmp | path_flag_primary | path_flag_outbound | path_flag_inbound_reverse;
    entries[0].type = type_path;
    std::memcpy(entries[0].content, &route.path, sizeof route.path);
    if (!route.source) return resolve_answer_of(request, status::success, std::span(entries).first(1));
    entries[1].flags = flag_source;
    entries[1].type = type_ipv4;
    std::memcpy(entries[1].content, &*route.source, sizeof *route.source);
    return resolve_answer_of(request, status::success, entries);
}

unsigned endpoint_of_counters(message_view request)
{
    return record_at<query_header>(request, 0).index;
}

endpoint_port endpoint_of_query(message_view request)
{
    const auto header = record_at<query_header>(request, 0);
    return {header.number, header.index};
}

message counters_answer(message_view request, const counters& counters)
{
    query_header header = query_answer_header(request, status::success, counters.size() * sizeof(be64_t));
    header.number = counter_count;
    message answer;
    append(answer, header);
    for (const uint64_t counter : counters) append(answer, to_wire(counter));
    return answer;
}

message endpoint_answer(message_view request, const endpoint& endpoint)
{
    endpoint_config config{};
    config.device_guid = to_wire(endpoint.device_guid);
    config.port = endpoint.port;
    config.port_count = endpoint.port_count;
    config.p_key = to_wire(endpoint.p_key);
    config.address_count = to_wire(static_cast<uint16_t>(endpoint.addresses.size()));
    std::memcpy(config.provider, "ats", sizeof "ats");
    message answer;
    append(answer,
           query_answer_header(request, status::success, sizeof config + endpoint.addresses.size() * address_size));
    append(answer, config);
    for (const std::string& text : endpoint.addresses) {
        std::array<char, address_size> address{};
        text.copy(address.data(), address.size() - 1);
        append(answer, address);
    }
    return answer;
}

message refusal(message_view request, status status)
{
    if (opcode_of(request) == opcode_resolve) return resolve_answer_of(request, status, {});
    message answer;
    append(answer, query_answer_header(request, status, 0));
    return answer;
}

} // namespace acm

#include "host/fabric/umad/sa-remarks.h"

#include <arpa/inet.h>
#include <bit>
#include <cstring>

#include "records/host-record.h"

namespace umad
{

namespace
{

constexpr size_t most_reported = 256; // the largest number of lines that are returned; limits the memory

constexpr uint64_t all_components = UINT64_MAX; // only the Sets of a host have this mask
constexpr uint64_t address_components = uint64_t{0xFFFF} << SR_COMPONENT_SERVICE_DATA8;

std::string text_of(uint16_t status, uint64_t component_mask, uint32_t address)
{
    char address_text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, address_text, sizeof address_text);
    if (status == MAD_STATUS_BUSY) return "the SA reports that it is busy: refused requests are repeated later";
    if (component_mask == all_components)
        return std::string("the SA refuses this host's record of ") + address_text + " with status " +
               records::status_text(status) + ": see the SM's log; is the record's P_Key in the port's table?";
    const bool is_address_lookup = (component_mask & address_components) == address_components;
    if (status == status_word(SA_STATUS_TOO_MANY_RECORDS) && is_address_lookup)
        return std::string("two or more records hold ") + address_text +
               ", and the SA returns none of them: 'ats sa show --address " + address_text +
               "' lists them, and 'ats sa remove GID' removes a stale one";
    return "";
}

} // namespace

std::string sa_remarks::remark_on(const sa_mad_v2_t& answer)
{
    const uint16_t status = from_wire(answer.hdr.u.ns.status.raw16);
    const bool is_record = from_wire(std::bit_cast<be16_t>(answer.hdr.attrib_id)) == SA_ATTR_SERVICE_RECORD;
    if (status == 0 || !is_record) return "";
    ib_service_record_v2_t record;
    std::memcpy(&record, answer.payload, sizeof record);
    const uint32_t address = records::decode(record).address;
    const std::string text = text_of(status, from_wire(answer.component_mask), address);
    if (text.empty() || reported_.size() >= most_reported) return "";

    const bool is_new = reported_.emplace(status, status == MAD_STATUS_BUSY ? 0 : address).second;
    return is_new ? text : "";
}

} // namespace umad

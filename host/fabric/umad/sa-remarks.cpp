#include "host/fabric/umad/sa-remarks.h"

#include <arpa/inet.h>
#include <bit>
#include <cstdio>
#include <cstring>

namespace umad
{

namespace
{

constexpr size_t most_said = 256; // different things; then all has been said that helps

constexpr uint64_t all_components = UINT64_MAX; // what a Set selects
constexpr uint64_t address_components = uint64_t{0xFFFF} << SR_COMPONENT_SERVICE_DATA8;

std::string text_of(uint16_t status, uint64_t mask, uint32_t address)
{
    char dotted[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, dotted, sizeof dotted);
    char hex[sizeof "0x0000"];
    std::snprintf(hex, sizeof hex, "0x%04X", status);
    if (status == MAD_STATUS_BUSY) return "the SA says that it is busy: what it did not do is tried again later";
    if (mask == all_components)
        return std::string("the SA refuses this host's record of ") + dotted + " (status " + hex +
               "): see the SM's log; 'ats check' looks at the port's P_Keys and the SA's abilities";
    if (status == status_word(SA_STATUS_TOO_MANY_RECORDS) && (mask & address_components) == address_components)
        return std::string("two or more records hold ") + dotted +
               ", and the SA tells neither: 'ats sa show --address " + dotted + "' lists them; remove the stale ones";
    return "";
}

} // namespace

std::string sa_remarks::on(const sa_mad_v2_t& answer)
{
    const uint16_t status = from_wire(answer.hdr.u.ns.status.raw16);
    const bool is_record = from_wire(std::bit_cast<be16_t>(answer.hdr.attrib_id)) == SA_ATTR_SERVICE_RECORD;
    if (status == 0 || !is_record) return "";
    ib_service_record_v2_t record;
    std::memcpy(&record, answer.payload, sizeof record);
    uint32_t address;
    std::memcpy(&address, record.service_data8 + 12, sizeof address);
    const std::string text = text_of(status, from_wire(answer.component_mask), address);
    if (text.empty()) return "";

    if (said_.size() >= most_said || !said_.emplace(status, status == MAD_STATUS_BUSY ? 0 : address).second) return "";
    return text;
}

} // namespace umad

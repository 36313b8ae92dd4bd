#include "host/fabric/capture.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "host/fabric/output-file.h"
#include "host/fabric/packet-crc.h"
#include "ib-types.h"

namespace fabric
{

namespace
{

// A pcap file has the byte order of its writer. Readers detect it from the magic number.
struct pcap_file_header {
    uint32_t magic = 0xA1B2C3D4; // timestamps in microseconds
    uint16_t major = 2;
    uint16_t minor = 4;
    int32_t time_zone = 0;
    uint32_t accuracy = 0;
    uint32_t longest_packet = 65535;
    uint32_t link_type = 197; // ERF
};
static_assert(sizeof(pcap_file_header) == 24);

struct pcap_packet_header {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t captured_bytes;
    uint32_t packet_bytes;
};

struct erf_header {
    uint64_t timestamp; // little-endian; high half: seconds since 1970, low half: units of 2^-32 s
    uint8_t type;
    uint8_t flags;
    be16_t record_bytes;
    be16_t loss_counter;
    be16_t wire_bytes;
};
static_assert(sizeof(erf_header) == 16);
constexpr uint8_t erf_infiniband = 21;
constexpr uint8_t erf_varying_length = 0x04;

struct local_route_header { // IBA 7.7
    uint8_t vl_and_version;
    uint8_t sl_and_next; // low half: the next header, 2 for a BTH
    be16_t destination_lid;
    be16_t length_in_words; // from this header to the end of the ICRC, in units of 4 bytes
    be16_t source_lid;
};

struct base_transport_header { // IBA 9.2
    uint8_t opcode;
    uint8_t flags;
    be16_t p_key;
    be32_t destination_qpn; // its first byte is reserved
    be32_t sequence_number; // 24 bits
};
constexpr uint8_t ud_send_only = 0x64; // IBA 9.2.1

struct datagram_extended_header { // IBA 9.3.3
    be32_t q_key;
    be32_t source_qpn;
};

struct ib_packet {
    local_route_header lrh;
    base_transport_header bth;
    datagram_extended_header deth;
    mad_bytes mad;
    uint8_t icrc[4];
    uint8_t vcrc[2];
};
static_assert(sizeof(ib_packet) == 8 + 12 + 8 + 256 + 4 + 2);

struct capture_record {
    pcap_packet_header pcap;
    erf_header erf;
    ib_packet ib;
};
static_assert(offsetof(capture_record, ib) == 32);
constexpr size_t record_size = offsetof(capture_record, ib) + sizeof(ib_packet);

constexpr uint16_t default_p_key = 0xFFFF;
constexpr uint32_t sequence_mask = 0xFFFFFF;

ib_packet make_packet(uint64_t number, uint16_t source_lid, const address& destination, const mad_bytes& mad)
{
    ib_packet packet;
    packet.lrh = {.vl_and_version = 0,
                  .sl_and_next = static_cast<uint8_t>(destination.sl << 4 | 2),
                  .destination_lid = to_wire(destination.lid),
                  .length_in_words = to_wire(static_cast<uint16_t>(offsetof(ib_packet, vcrc) / 4)),
                  .source_lid = to_wire(source_lid)};
    packet.bth = {.opcode = ud_send_only,
                  .flags = 0,
                  .p_key = to_wire(default_p_key),
                  .destination_qpn = to_wire(destination.qpn & sequence_mask),
                  .sequence_number = to_wire(static_cast<uint32_t>(number & sequence_mask))};
    packet.deth = {.q_key = to_wire(destination.q_key), .source_qpn = to_wire(uint32_t{1})};
    packet.mad = mad;

    uint8_t bytes[sizeof(ib_packet)];
    memcpy(bytes, &packet, sizeof bytes);
    write_invariant_crc(bytes, offsetof(ib_packet, icrc), packet.icrc);
    memcpy(bytes + offsetof(ib_packet, icrc), packet.icrc, sizeof packet.icrc);
    write_variant_crc(bytes, offsetof(ib_packet, vcrc), packet.vcrc);
    return packet;
}

} // namespace

capture::capture(std::string path, uint64_t start_unix_ms, report_t report)
    : path_(std::move(path)), start_unix_ms_(start_unix_ms), report_(std::move(report))
{
    const ats::result<std::FILE*> file = open_output_file(path_);
    if (!file) {
        note_failure(file.error().text);
        return;
    }
    file_ = *file;
    const pcap_file_header header;
    write(&header, sizeof header);
}

capture::~capture()
{
    close();
}

void capture::crossed(uint64_t now_ticks, uint16_t source_lid, const address& destination, const mad_bytes& mad)
{
    std::lock_guard lock(mutex_);
    if (!file_ || !status_) return;
    const uint64_t ms = start_unix_ms_ + now_ticks;
    const uint64_t seconds = ms / 1000;
    capture_record record;
    record.pcap = {.seconds = static_cast<uint32_t>(seconds),
                   .microseconds = static_cast<uint32_t>(ms % 1000 * 1000),
                   .captured_bytes = record_size - sizeof(pcap_packet_header),
                   .packet_bytes = record_size - sizeof(pcap_packet_header)};
    record.erf = {.timestamp = seconds << 32 | ((ms % 1000) << 32) / 1000,
                  .type = erf_infiniband,
                  .flags = erf_varying_length,
                  .record_bytes = to_wire(static_cast<uint16_t>(sizeof(erf_header) + sizeof(ib_packet))),
                  .loss_counter = {},
                  .wire_bytes = to_wire(static_cast<uint16_t>(sizeof(ib_packet)))};
    record.ib = make_packet(packets_, source_lid, destination, mad);
    write(&record, record_size);
    if (status_)
        ++packets_;
    else if (report_)
        report_(status_.error().text);
}

void capture::write(const void* bytes, size_t size)
{
    if (std::fwrite(bytes, 1, size, file_) != size) note_failure(std::strerror(errno));
}

void capture::note_failure(const std::string& reason)
{
    if (status_) status_ = ats::fail("cannot write the capture " + path_ + ": " + reason);
}

ats::result<> capture::status() const
{
    std::lock_guard lock(mutex_);
    return status_;
}

ats::result<> capture::flush()
{
    std::lock_guard lock(mutex_);
    if (file_ && std::fflush(file_) != 0) note_failure(std::strerror(errno));
    return status_;
}

ats::result<> capture::close()
{
    std::lock_guard lock(mutex_);
    if (file_ && std::fclose(file_) != 0) note_failure(std::strerror(errno));
    file_ = nullptr;
    return status_;
}

uint64_t capture::packets() const
{
    std::lock_guard lock(mutex_);
    return packets_;
}

} // namespace fabric

// The base types of the InfiniBand stack: GIDs, LIDs, P_Keys, and numbers in wire order. Values for calculation and
// values on the wire have different types, so that the compiler finds a missing conversion.
#pragma once

#include <cstddef>
#include <cstdint>

// A GID as one 128-bit number stored least significant byte first: the reverse of its wire order.
struct kq_gid_t {
    uint64_t eui64;  // bytes 0 to 7: the interface identifier
    uint64_t subnet; // bytes 8 to 15: the subnet prefix

    friend bool operator==(const kq_gid_t&, const kq_gid_t&) = default;
};
static_assert(sizeof(kq_gid_t) == 16 && offsetof(kq_gid_t, subnet) == 8);

// The printf format of a GID and its two arguments: the subnet prefix, then the interface identifier. KQ_GID_ARGS
// evaluates its argument twice.
#define KQ_GID_FORMAT "0x%016LX%016LX"
#define KQ_GID_ARGS(gid) static_cast<unsigned long long>((gid).subnet), static_cast<unsigned long long>((gid).eui64)

using kq_lid_t = uint16_t;
using kq_p_key_t = uint16_t;
using kq_port_num_t = uint8_t;

// Numbers in wire order (most significant byte first). Their alignment is 1, so records made of them have no padding.
// They have no arithmetic: from_wire and to_wire convert them.
struct be16_t {
    uint8_t bytes[2];
};
struct be32_t {
    uint8_t bytes[4];
};
struct be64_t {
    uint8_t bytes[8];
};
struct wire_gid_t { // IBA 4.1.1: a GID, most significant byte first
    uint8_t bytes[16];
};

inline uint16_t from_wire(be16_t v)
{
    return static_cast<uint16_t>(v.bytes[0] << 8 | v.bytes[1]);
}
inline uint32_t from_wire(be32_t v)
{
    uint32_t number;
    __builtin_memcpy(&number, v.bytes, sizeof number);
    return __builtin_bswap32(number);
}
inline uint64_t from_wire(be64_t v)
{
    uint64_t number;
    __builtin_memcpy(&number, v.bytes, sizeof number);
    return __builtin_bswap64(number);
}
inline be16_t to_wire(uint16_t number)
{
    return {{static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)}};
}
inline be32_t to_wire(uint32_t number)
{
    be32_t v;
    number = __builtin_bswap32(number);
    __builtin_memcpy(v.bytes, &number, sizeof number);
    return v;
}
inline be64_t to_wire(uint64_t number)
{
    be64_t v;
    number = __builtin_bswap64(number);
    __builtin_memcpy(v.bytes, &number, sizeof number);
    return v;
}
inline kq_gid_t from_wire(const wire_gid_t& v)
{
    kq_gid_t gid;
    __builtin_memcpy(&gid.subnet, v.bytes, 8);
    __builtin_memcpy(&gid.eui64, v.bytes + 8, 8);
    return {__builtin_bswap64(gid.eui64), __builtin_bswap64(gid.subnet)};
}
inline wire_gid_t to_wire(const kq_gid_t& gid)
{
    const uint64_t subnet = __builtin_bswap64(gid.subnet), eui64 = __builtin_bswap64(gid.eui64);
    wire_gid_t v;
    __builtin_memcpy(v.bytes, &subnet, 8);
    __builtin_memcpy(v.bytes + 8, &eui64, 8);
    return v;
}

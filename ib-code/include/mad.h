// The form that the management datagrams (MADs) of all classes have (IBA volume 1, 13.4): 256 bytes, of which the first
// 24 are the header.
#pragma once

#include "ib-types.h"

constexpr size_t MAD_SIZE = 256;

constexpr uint8_t MAD_BASE_VERSION = 1;
constexpr uint8_t MAD_CLASS_SUBN_ADM = 0x03; // IBA 15.2.1
constexpr uint8_t MAD_CLASS_VERSION_SUBN_ADM = 2;
constexpr uint8_t MAD_METHOD_RESPONSE = 0x80; // the R bit in the byte that also has the method

// Methods (IBA 13.4.5 and 15.2.2), without the R bit.
constexpr uint8_t MAD_METHOD_GET = 0x01;
constexpr uint8_t MAD_METHOD_SET = 0x02;
constexpr uint8_t MAD_METHOD_GET_TABLE = 0x12;
constexpr uint8_t MAD_METHOD_DELETE = 0x15;

// Common status bits (IBA 13.4.7): the low byte of the status word.
constexpr uint16_t MAD_STATUS_COMMON_BITS = 0x00FF;
constexpr uint16_t MAD_STATUS_BUSY = 0x0001;
constexpr uint16_t MAD_STATUS_REDIRECT = 0x0002;
constexpr uint16_t MAD_STATUS_BAD_VERSION = 0x0004;
constexpr uint16_t MAD_STATUS_UNSUPPORTED_METHOD = 0x0008;
constexpr uint16_t MAD_STATUS_UNSUPPORTED_METHOD_ATTRIBUTE = 0x000C;
constexpr uint16_t MAD_STATUS_INVALID_FIELD = 0x001C;

struct mad_method_t {
    uint8_t method : 7;
    uint8_t r : 1; // the response bit
};

struct mad_status_t {
    be16_t raw16; // high byte: class-specific code; low byte: common status bits
};

struct mad_hdr_t {
    uint8_t base_ver;
    uint8_t mgt_class;
    uint8_t class_ver;
    mad_method_t m;
    union {
        struct {
            mad_status_t status;
            be16_t reserved;
        } ns;
    } u;
    be64_t transact_id; // GSI writes it when the datagram is posted
    uint16_t attrib_id; // GSI clients see it in host order; GSI converts it when it sends and receives
    be16_t reserved;
    be32_t attrib_modifier;
};
static_assert(sizeof(mad_hdr_t) == 24);
static_assert(offsetof(mad_hdr_t, base_ver) == 0 && offsetof(mad_hdr_t, mgt_class) == 1);
static_assert(offsetof(mad_hdr_t, class_ver) == 2 && offsetof(mad_hdr_t, m) == 3);
static_assert(offsetof(mad_hdr_t, u.ns.status) == 4 && offsetof(mad_hdr_t, u.ns.reserved) == 6);
static_assert(offsetof(mad_hdr_t, transact_id) == 8 && offsetof(mad_hdr_t, attrib_id) == 16);
static_assert(offsetof(mad_hdr_t, reserved) == 18 && offsetof(mad_hdr_t, attrib_modifier) == 20);

struct mad_t {
    mad_hdr_t hdr;
    uint8_t data[232];
};
static_assert(sizeof(mad_t) == MAD_SIZE && offsetof(mad_t, data) == 24);

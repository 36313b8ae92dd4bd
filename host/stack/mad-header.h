// The header of a MAD, IBA 13.4.3.
#pragma once

#include <cstring>

#include "host/fabric/fabric.h"
#include "sa-mads.h"

namespace stack
{

// Returns a copy of the header. Its fields keep the byte order that they have in the MAD.
inline mad_hdr_t header_of(const fabric::mad_bytes& mad)
{
    mad_hdr_t header;
    std::memcpy(&header, mad.data(), sizeof header);
    return header;
}

} // namespace stack

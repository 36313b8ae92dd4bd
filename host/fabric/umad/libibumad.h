// Include this file instead of <infiniband/umad.h>. libibumad's header defines obsolete types be16_t, be32_t and
// be64_t. This file renames them, because ib-types.h uses these names for the wire types of this program.
#pragma once

#define be16_t umad_obsolete_be16_t
#define be32_t umad_obsolete_be32_t
#define be64_t umad_obsolete_be64_t
#include <infiniband/umad.h>
#undef be16_t
#undef be32_t
#undef be64_t

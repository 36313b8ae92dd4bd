// Includes libibumad. Its header defines obsolete wire types with the names of the stack's own types. This file renames
// them. Include it instead of <infiniband/umad.h>.
#pragma once

#define be16_t umad_obsolete_be16_t
#define be32_t umad_obsolete_be32_t
#define be64_t umad_obsolete_be64_t
#include <infiniband/umad.h>
#undef be16_t
#undef be32_t
#undef be64_t

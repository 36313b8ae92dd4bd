// libibumad, whose header claims the names of the stack's own wire types for obsolete ones of its own: here they get
// out of the way. Include this and never <infiniband/umad.h>.
#pragma once

#define be16_t umad_obsolete_be16_t
#define be32_t umad_obsolete_be32_t
#define be64_t umad_obsolete_be64_t
#include <infiniband/umad.h>
#undef be16_t
#undef be32_t
#undef be64_t

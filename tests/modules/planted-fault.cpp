// A fault in the module for tests: every fourth Set registers a wrong address. A campaign must find it. If the
// environment has the variable FAULT_ON_WIRE, these Sets also have a wrong version, which the campaign's wire_watch
// must find. The linker inserts this function between the module and the kernel (--wrap).
#include <atomic>
#include <cstdlib>

#include "gsi.h"
#include "sa-mads.h"

extern "C" int __real_gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm, uint64_t* transaction_id);

extern "C" int __wrap_gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm, uint64_t* transaction_id)
{
    constexpr unsigned period = 4;
    constexpr size_t last_byte_of_address = offsetof(sa_mad_v2_t, payload) +
                                            offsetof(ib_service_record_v2_t, service_data8) +
                                            sizeof(ib_service_record_v2_t::service_data8) - 1;
    static std::atomic<unsigned> sets{0}; // each host has its own counter
    auto& header = reinterpret_cast<mad_hdr_t&>(dtgrm->mad);
    if (header.m.method == MAD_METHOD_SET && ++sets % period == 0) {
        ++dtgrm->mad[last_byte_of_address];
        if (std::getenv("FAULT_ON_WIRE")) ++header.base_ver;
    }
    return __real_gsi_post_send_dtgrm(handle, dtgrm, transaction_id);
}

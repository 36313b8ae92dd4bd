// Modules that the loader must refuse, because the record `this_module` has a fault. The build makes one image for each
// fault: MISFIT_RECORD_SIZE, MISFIT_RECORD_VERSION, MISFIT_NO_INIT and MISFIT_NO_EXIT.
#ifdef MISFIT_RECORD_SIZE
extern "C" __attribute__((visibility("default"))) int this_module;
int this_module = 7;
#else
#include "kernel/module.h"

kernel_module_t this_module = {
#ifdef MISFIT_RECORD_VERSION
    .record_version = module_record_version - 1,
    .init = [] { return 0; },
#elif defined MISFIT_NO_INIT
    .name = "misfit",
#else
    .name = "misfit",
    .init = [] { return 0; },
#endif
};
#endif

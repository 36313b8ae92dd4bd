// Images that no loader may start: the build makes one for each MISFIT.
#if MISFIT == 0
extern "C" __attribute__((visibility("default"))) int this_module;
int this_module = 7;
#else
#include "kernel/module.h"

kernel_module_t this_module = {
#if MISFIT == 1
    .record_version = module_record_version - 1,
    .init = [] { return 0; },
#elif MISFIT == 2
    .name = "misfit",
#else
    .name = "misfit",
    .init = [] { return 0; },
#endif
};
#endif

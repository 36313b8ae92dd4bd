#include "host/stack/boot.h"

#include "host/stack/fabric-polling.h"
#include "host/stack/gsi-service.h"
#include "host/stack/timers.h"
#include "host/stack/verbs-service.h"

namespace stack
{

void boot(kernel::machine& home)
{
    home.get<timers>().set_idle_work([polling = fabric_polling(home.hcas())] { return polling.poll(); });
    for (fabric::hca* each : home.hcas()) {
        home.get<verbs>().events_of(*each);
        home.get<gsi>().adapter(name_for_modules(*each).name);
    }
}

} // namespace stack

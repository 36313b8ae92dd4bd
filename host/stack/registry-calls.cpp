// Implements repository.h with the calling machine's registry.
#include "host/stack/registry.h"
#include "kernel/errno.h"

using kernel::current_machine;
using stack::registry;

rep_key_t rep_get_root()
{
    return registry::root;
}

int rep_open_key(rep_key_t parent, const char* path, int flags, rep_key_t* key)
{
    kernel::machine& home = current_machine(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOENT;
    if (!path || flags != REP_OPEN_EXISTING || !key) return -EK_INVAL;
    return home.get<registry>().open(parent, path, key, __builtin_return_address(0));
}

int rep_get_value(rep_key_t key, const char* name, int flags, intptr_t* value, int* length)
{
    kernel::machine& home = current_machine(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOENT;
    if (!name || flags != 0 || !value || !length || *length != sizeof *value) return -EK_INVAL;
    return home.get<registry>().read(key, name, value);
}

int rep_notify_key_change(rep_key_t key, int scope, int events, rep_change_fn_t callback, void* context,
                          rep_notifier_t* notifier)
{
    kernel::machine& home = current_machine(__func__);
    if (home.faults.should_fail(__func__)) return -EK_NOMEM;
    if (scope != REP_NOTIFY_THIS_KEY || events != REP_NOTIFY_ON_VALUE || !callback || !notifier) return -EK_INVAL;
    return home.get<registry>().follow(key, callback, context, notifier);
}

void rep_close_key(rep_key_t key)
{
    current_machine(__func__).get<registry>().close(key);
}

void rep_notify_del(rep_notifier_t notifier)
{
    current_machine(__func__).get<registry>().unfollow(notifier);
}

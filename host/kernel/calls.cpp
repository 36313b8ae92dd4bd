// Implements the short kernel calls. Most of them pass their arguments to a part of the calling task's machine, for
// example to its log or its memory. sync.cpp implements semaphores, locks and sleeps.

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <string_view>

#include "host/exec/print-capture.h"
#include "host/kernel/format.h"
#include "host/kernel/machine.h"
#include "kernel/memory.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "kernel/time.h"

using exec::might_sleep;
using kernel::current_machine;
using kernel::current_machine_may_sleep;

namespace
{

constexpr size_t max_print_bytes = 2048; // including the NUL

uint64_t shown_address(const void* pointer)
{
    return current_machine("printk").addresses.nominal(pointer);
}

} // namespace

void printk(const char* format, ...)
{
    char text[max_print_bytes];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = kernel::format_text(text, sizeof text, format, arguments, shown_address);
    va_end(arguments);
    if (length >= sizeof text && std::string_view(format).ends_with('\n'))
        text[sizeof text - 2] = '\n'; // keep the line end of a text that was cut
    // Remove the NULs that %c has printed, because they must not end the text.
    *std::remove(text, text + std::min(length, sizeof text - 1), '\0') = '\0';
    kernel::machine& machine = current_machine(__func__);
    exec::print_capture* capture = exec::current_task()->capture;
    if (capture && !capture->take(text)) return;
    machine.log.append(machine.exec().now(), text);
}

void* kmalloc(size_t size, gfp_t flags)
{
    kernel::machine& machine = flags == GFP_KERNEL ? current_machine_may_sleep(__func__) : current_machine(__func__);
    if (machine.faults.should_fail(__func__)) return nullptr;
    return machine.memory.allocate(size, __builtin_return_address(0));
}

void kfree(const void* memory)
{
    if (memory && !current_machine(__func__).memory.release(memory))
        exec::panic("kfree: %p is not memory of this machine, or was freed before", memory);
}

unsigned long copy_from_user(void* destination, const void* source, unsigned long count)
{
    if (current_machine_may_sleep(__func__).faults.should_fail(__func__)) return count;
    std::memcpy(destination, source, count);
    return 0;
}

void get_random_bytes(void* buffer, int count)
{
    current_machine(__func__).random.fill(buffer, count);
}

unsigned long get_jiffies()
{
    return current_machine(__func__).exec().now();
}

void inter_module_register(const char* name, kernel_module_t* owner, const void* pointer)
{
    current_machine(__func__).inter_modules.publish(name, owner, pointer);
}

void inter_module_unregister(const char* name)
{
    current_machine(__func__).inter_modules.withdraw(name);
}

const void* inter_module_get(const char* name)
{
    kernel::machine& machine = current_machine(__func__);
    return machine.faults.should_fail(__func__) ? nullptr : machine.inter_modules.get(name);
}

void inter_module_put(const char* name)
{
    current_machine(__func__).inter_modules.put(name);
}

proc_dir_entry* create_proc_entry(const char* path, mode_t mode)
{
    kernel::machine& machine = current_machine(__func__);
    return machine.faults.should_fail(__func__) ? nullptr : machine.proc.create(path, mode, false);
}

proc_dir_entry* proc_mkdir(const char* path)
{
    kernel::machine& machine = current_machine(__func__);
    return machine.faults.should_fail(__func__) ? nullptr : machine.proc.create(path, 0, true);
}

void remove_proc_entry(const char* path)
{
    might_sleep(__func__);
    current_machine(__func__).proc.remove(path);
}

// A module for tests of the loader and of the /proc tree: it does what its parameters say.
#include <cstdio>
#include <cstring>

#include "kernel/memory.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "kernel/sync.h"

namespace
{

const char* text = "default";
int32_t number = 7;
int32_t result = 0;
int32_t start_ticks = 0; // how long start-up takes
int32_t leak_bytes = 0;
int32_t keep_name = 0; // leaves its published name behind
std::atomic<int32_t> logger_level{-1};

const module_parameter_t parameters[] = {
    {"text", module_parameter_text, &text, "any text"},
    {"number", module_parameter_int, &number, "any number"},
    {"result", module_parameter_int, &result, "what start-up returns"},
    {"start_ticks", module_parameter_int, &start_ticks, "how long start-up takes"},
    {"leak_bytes", module_parameter_int, &leak_bytes, "memory to forget"},
    {"keep_name", module_parameter_int, &keep_name, "1: do not withdraw the name"},
};

std::atomic<int> calls; // each image has its own

int probe_call()
{
    return ++calls;
}

int probe_read(char* page, char** start, off_t off, int count, int* eof, void*)
{
    const int length = std::snprintf(page, PROC_PAGE_SIZE, "%s %d\n", text, number);
    *start = page + off;
    *eof = off + count >= length;
    return off >= length ? 0 : (length - off < count ? static_cast<int>(length - off) : count);
}

// Takes its time, and tells when it is done.
int probe_write(struct file*, const char* user_buffer, unsigned long count, void*)
{
    char buffer[16] = {};
    if (count >= sizeof buffer || copy_from_user(buffer, user_buffer, count) != 0) return -1;
    schedule_timeout_uninterruptible(50);
    printk("<6>probe wrote %s\n", buffer);
    return static_cast<int>(count);
}

void stop()
{
    remove_proc_entry("probe");
    if (keep_name == 0) inter_module_unregister("probe_call");
    printk("<6>probe stopped\n");
}

int start()
{
    inter_module_register("probe_call", THIS_MODULE, reinterpret_cast<const void*>(&probe_call));
    proc_dir_entry* entry = create_proc_entry("probe", 0644);
    if (start_ticks > 0) schedule_timeout_uninterruptible(static_cast<unsigned long>(start_ticks));
    if (entry) {
        entry->owner = THIS_MODULE;
        entry->read_proc = probe_read;
        entry->write_proc = probe_write;
    }
    if (leak_bytes > 0 && !kmalloc(static_cast<size_t>(leak_bytes), GFP_KERNEL)) result = -12;
    if (result < 0) stop();
    return result;
}

} // namespace

MODULE_EXPORT const char* probe_text()
{
    return text;
}

MODULE_EXPORT int probe_number()
{
    return number;
}

kernel_module_t this_module = {
    .name = "probe",
    .description = "a probe for tests",
    .init = start,
    .exit = stop,
    .parameters = parameters,
    .parameter_count = sizeof parameters / sizeof parameters[0],
    .logger_level = &logger_level,
};

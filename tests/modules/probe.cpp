// A module for tests of the loader and of the /proc tree. Its parameters control its behaviour.
#include <cstdio>
#include <cstring>

#include "gsi.h"
#include "kernel/memory.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "kernel/sync.h"
#include "logger.h"
#include "timing.h"
#include "verbs.h"

namespace
{

const char* text = "default";
int32_t number = 7;
int32_t result = 0;
int32_t start_ticks = 0; // duration of the start-up
int32_t leak_bytes = 0;
// At its end, the module keeps one thing that it should release: its published name (1), the resources of use_stack()
// (2), or its /proc entry (3). With 0, it releases everything.
int32_t forget = 0;
std::atomic<int32_t> logger_level{-1};

const module_parameter_t parameters[] = {
    {"text", module_parameter_text, &text, "any text"},
    {"number", module_parameter_int, &number, "any number"},
    {"result", module_parameter_int, &result, "what start-up returns"},
    {"start_ticks", module_parameter_int, &start_ticks, "how long start-up takes"},
    {"leak_bytes", module_parameter_int, &leak_bytes, "memory to forget"},
    {"forget", module_parameter_int, &forget, "1: the name, 2: the stack, 3: the entry"},
};

std::atomic<int> calls; // each image has its own counter

int construction_count = 0;
void (*at_end)() = nullptr;

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

// Lasts 50 ticks, and logs a line at its end.
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
    if (forget != 3) remove_proc_entry("probe");
    if (forget != 1) inter_module_unregister("probe_call");
    printk("<6>probe stopped\n");
}

// Acquires a timer, an HCA, an event subscription, a GSI class, a datagram pool and a registry subscription. Never
// releases them.
void use_stack()
{
    static timing_t timer;
    init_timing(&timer);
    timer.function = [](unsigned long) {};
    timer.expires = 1000;
    add_timing(&timer);
    kq_hca_name name;
    kq_hca_h_t hca;
    const kq_request_event_record_t events{kq_async_even_all, nullptr};
    gsi_class_handle_t handle;
    gsi_dtgrm_pool_handle_t pool;
    const auto completion = [](gsi_class_handle_t, void*, gsi_dtgrm_t*) {};
    if (kq_list_hcas(&name, 1) == 1 && kq_hca_open(&name, 0, &hca) == kq_return_ok &&
        kq_set_sleepable_async_event_cb(hca, &events, [](kq_event_record_st) {}) == kq_return_ok &&
        gsi_register_class(3, 2, &name, 1, 0, 0, completion, completion, nullptr, &handle) == 0)
        gsi_dtgrm_pool_create_named(1, &pool, "probe");
    rep_key_t key;
    rep_notifier_t notifier;
    if (rep_open_key(rep_get_root(), "dorvex/logger", REP_OPEN_EXISTING, &key) == 0)
        rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, trace_lvl_change_cb, &logger_level,
                              &notifier);
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
    if (forget == 2) use_stack();
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

MODULE_EXPORT __attribute__((constructor)) void probe_construct(int count, char** words)
{
    construction_count += (count > 0) == (words != nullptr); // the arguments of main(), or 0 and null
}

MODULE_EXPORT __attribute__((destructor)) void probe_destruct()
{
    if (at_end) at_end();
}

// Returns how often the constructor of this image has run. The destructor of the image will call `function`.
MODULE_EXPORT int probe_begin(void (*function)())
{
    at_end = function;
    return construction_count;
}

// Calls a function of the test program. If this function throws, the local object below must be destroyed.
MODULE_EXPORT int probe_call_back(void (*function)())
{
    struct counter {
        ~counter() { ++calls; }
    } at_return;
    function();
    return 0;
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

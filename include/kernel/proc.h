// The /proc tree.
#pragma once

#include <atomic>
#include <sys/types.h>

#include "kernel/export.h"
#include "kernel/module.h"

constexpr size_t PROC_PAGE_SIZE = 4096;

// Opaque here: an open file of the writer. Handlers get it and ignore it.
struct file;

// Fills `page` (PROC_PAGE_SIZE bytes). `*start` is where the answer for offset `off` begins, `*eof` is set to 1
// when it reaches the end. Returns the number of bytes from `*start`, at most `count`, or a negative error number. More
// bytes are cut off, and the log says so; a `*start` outside of the page is a hard error. May sleep.
using read_proc_t = int(char* page, char** start, off_t off, int count, int* eof, void* data);

// Takes `count` bytes at `user_buffer` (reach them with copy_from_user). Returns the number of bytes taken or a
// negative error number. May sleep. The writes of one entry come one at a time: a signal ends the wait of the next
// writer with -EK_RESTARTSYS.
using write_proc_t = int(struct file* file, const char* user_buffer, unsigned long count, void* data);

// One entry. It may be entered as soon as it has a handler, even while its module starts: whoever creates an entry sets
// `data` and `owner` first. An entry with an owner is not entered any more once the owner's unloading has begun.
struct proc_dir_entry {
    std::atomic<read_proc_t*> read_proc;
    std::atomic<write_proc_t*> write_proc;
    void* data;
    std::atomic<kernel_module_t*> owner;
};

// Creates a file at `path` (relative to the /proc root, no leading slash); mode 0 means 0444. Null when a
// directory on the path is missing, the name exists already, or memory ran out. The tree owns the entry.
KERNEL_API proc_dir_entry* create_proc_entry(const char* path, mode_t mode);

// Creates a directory, likewise.
KERNEL_API proc_dir_entry* proc_mkdir(const char* path);

// Removes the entry at `path` after the handlers that run in it have returned. A missing entry is ignored.
// May sleep.
KERNEL_API void remove_proc_entry(const char* path);

// The /proc tree.
#pragma once

#include <atomic>
#include <sys/types.h>

#include "kernel/export.h"
#include "kernel/module.h"

constexpr size_t PROC_PAGE_SIZE = 4096;

// The open file of the writer. Handlers ignore it.
struct file;

// Fills `page` (PROC_PAGE_SIZE bytes). Sets `*start` to the place in `page` where the answer for offset `off` begins.
// Sets `*eof` to 1 if the answer reaches the end. Returns the number of bytes from `*start` on, at most `count`, or a
// negative error number. More bytes are cut off with a line in the log. A `*start` outside of the page is a hard error.
// May sleep.
using read_proc_t = int(char* page, char** start, off_t off, int count, int* eof, void* data);

// Handles `count` bytes at `user_buffer`; it reads them with copy_from_user. Returns the number of bytes handled, or a
// negative error number. May sleep. An entry has one writer at a time. A signal ends a writer's wait for another writer
// with -EK_RESTARTSYS.
using write_proc_t = int(struct file* file, const char* user_buffer, unsigned long count, void* data);

// One entry. It can be read or written as soon as the handler is set, even before its module has started. Therefore set
// `data` and `owner` before the handlers. Once the owner's unloading has begun, its entries cannot be read or written
// any more.
struct proc_dir_entry {
    std::atomic<read_proc_t*> read_proc;
    std::atomic<write_proc_t*> write_proc;
    void* data;
    std::atomic<kernel_module_t*> owner;
};

// Creates a file at `path`, which is relative to the /proc root and has no leading slash. The mode 0 means 0444. Null
// if a directory on the path is missing, the name already exists, or there is no memory. The tree owns the entry.
KERNEL_API proc_dir_entry* create_proc_entry(const char* path, mode_t mode);

// Creates a directory, with the rules of create_proc_entry.
KERNEL_API proc_dir_entry* proc_mkdir(const char* path);

// Removes the entry at `path`, and waits for its running handlers. A missing entry is ignored. A hard error for a
// directory that is not empty. May sleep.
KERNEL_API void remove_proc_entry(const char* path);

// The /proc tree of a machine. The read handler of a module supplies the content of a file. The write handler receives
// the bytes that are written to the file.
#pragma once

#include <atomic>
#include <sys/types.h>

#include "kernel/export.h"
#include "kernel/module.h"

constexpr size_t PROC_PAGE_SIZE = 4096;

// The open file of the writer. This kernel passes null to the handlers.
struct file;

// A read handler. It writes text into `page` (PROC_PAGE_SIZE bytes), and sets `*start` to the place in `page` where the
// text for the file offset `off` begins. It sets `*eof` to 1 if this text reaches the end of the file. It returns the
// number of bytes from `*start` on, at most `count`, or a negative error number. The kernel cuts off further bytes and
// logs a line. If `*start` is outside of the page, the program ends with an error. `data` is proc_dir_entry::data. May
// sleep.
using read_proc_t = int(char* page, char** start, off_t off, int count, int* eof, void* data);

// A write handler. It reads the `count` bytes at `user_buffer` with copy_from_user. It returns the number of bytes that
// it has handled, or a negative error number. May sleep. The kernel runs one write of an entry at a time. Another
// writer waits meanwhile; a signal ends its wait, and its write fails with -EK_RESTARTSYS.
using write_proc_t = int(struct file* file, const char* user_buffer, unsigned long count, void* data);

// One entry. Its handlers may be called as soon as they are set, even before the module's `init` has returned.
// Therefore set `data` and `owner` first. When the unloading of the owner has begun, the kernel does not call the
// handlers any more.
struct proc_dir_entry {
    std::atomic<read_proc_t*> read_proc;
    std::atomic<write_proc_t*> write_proc;
    void* data;
    std::atomic<kernel_module_t*> owner;
};

// Creates a file without handlers at `path`, which is relative to the /proc root and has no leading slash. The mode 0
// means 0444. Returns null if a directory on the path is missing, if the name exists already, or if there is no memory.
// The tree owns the entry.
KERNEL_API proc_dir_entry* create_proc_entry(const char* path, mode_t mode);

// Creates a directory. The path, the result and the errors are as in create_proc_entry.
KERNEL_API proc_dir_entry* proc_mkdir(const char* path);

// Removes the entry at `path`, and waits until its handlers do not run any more. Does nothing if there is no entry. If
// the entry is a directory that is not empty, the program ends with an error. May sleep.
KERNEL_API void remove_proc_entry(const char* path);

// The files of a mount: the /proc trees and logs of two hosts. Tests them without FUSE.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/mount/mount-tree.h"
#include "kernel/memory.h"
#include "kernel/proc.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

std::string last_write;

// The write handler of /proc/net/control.
int store_text(struct file*, const char* bytes, unsigned long count, void*)
{
    std::string text(count, '\0');
    if (copy_from_user(text.data(), bytes, count) != 0) return -EFAULT;
    last_write = text;
    return static_cast<int>(count);
}

// The read handler of /proc/net/control.
int show_text(char* page, char** start, off_t offset, int count, int* eof, void*)
{
    const std::string text = "hosted 1\n";
    const size_t rest = text.size() - std::min(text.size(), static_cast<size_t>(offset));
    *start = page;
    *eof = 1;
    return static_cast<int>(text.copy(page, std::min(rest, static_cast<size_t>(count)), text.size() - rest));
}

class mount_tree : public testing::Test
{
  protected:
    mount_tree()
    {
        sim->settle();
        first.enter("make", [] {
            proc_mkdir("net");
            proc_dir_entry* entry = create_proc_entry("net/control", 0644);
            entry->write_proc = store_text;
            entry->read_proc = show_text;
        });
    }
    ~mount_tree() override
    {
        first.enter("remove", [] {
            remove_proc_entry("net/control");
            remove_proc_entry("net");
        });
    }

    // Describes a path: "folder", "file 644 size 0", or the error.
    std::string kind(const std::string& path)
    {
        cli::mount_entry entry;
        if (const int result = tree.stat(path, &entry); result < 0) return strerror(-result);
        if (entry.is_directory) return "folder";
        char text[64];
        snprintf(text, sizeof text, "file %o size %llu", entry.permissions,
                 static_cast<unsigned long long>(entry.size));
        return text;
    }

    std::vector<std::string> names(const std::string& path)
    {
        std::vector<cli::mount_entry> entries;
        std::vector<std::string> names;
        const int result = tree.list(path, &entries);
        if (result < 0) return {strerror(-result)};
        for (const cli::mount_entry& entry : entries) names.push_back(entry.name);
        return names;
    }

    int write(const std::string& path, const std::string& bytes)
    {
        return tree.write_proc(
            path, bytes, [](exec::task&) {}, [] {});
    }

    void print(kernel::log& log, const std::string& text) { log.append(0, text + "\n"); }

    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    kernel::machine first{*sim, "a", {.log_bytes = 4096}};
    kernel::machine second{*sim, "b"};
    cli::mount_tree tree{{&first, &second}};
};

TEST_F(mount_tree, paths_are_folders_files_or_nothing)
{
    const struct {
        const char* path;
        const char* kind;
        std::vector<std::string> names;
    } cases[] = {
        {"", "folder", {"a", "b"}},
        {"a", "folder", {"proc", "log"}},
        {"a/log", "file 444 size 0", {"Not a directory"}},
        {"a/proc", "folder", {"net"}},
        {"b/proc", "folder", {}},
        {"a/proc/net", "folder", {"control"}},
        {"a/proc/net/control", "file 644 size 0", {"Invalid argument"}},
        {"a/proc/net/version", "No such file or directory", {"No such file or directory"}},
        {"b/proc/net", "No such file or directory", {"No such file or directory"}},
        {"c", "No such file or directory", {"No such file or directory"}},
        {"a/etc", "No such file or directory", {"Not a directory"}},
        {"a/process", "No such file or directory", {"Not a directory"}},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(kind(each.path), each.kind) << each.path;
        EXPECT_EQ(names(each.path), each.names) << each.path;
    }
}

TEST_F(mount_tree, reads_and_writes_reach_the_handlers_of_their_host)
{
    std::string text;
    EXPECT_EQ(tree.read_proc("a/proc/net/control", 0, 4096, &text), 9);
    EXPECT_EQ(text, "hosted 1\n");
    text.clear();
    EXPECT_EQ(tree.read_proc("a/proc/net/control", 7, 4096, &text), 2);
    EXPECT_EQ(text, "1\n");
    EXPECT_EQ(write("a/proc/net/control", "one\ntwo"), 7);
    EXPECT_EQ(last_write, "one\ntwo");
    EXPECT_EQ(write("b/proc/net/control", "x"), -ENOENT);
    EXPECT_EQ(write("a/log", "x"), -ENOENT);
    EXPECT_EQ(write("a/proc", "x"), -EINVAL);
    EXPECT_EQ(tree.read_proc("a", 0, 1, &text), -ENOENT);
    EXPECT_EQ(tree.open_log("a/proc/net/control"), nullptr);
}

TEST_F(mount_tree, open_log_grows_with_the_log_and_can_be_read_from_anywhere)
{
    print(first.log, "one");
    first.log.append(0, "half");
    const auto reader = tree.open_log("a/log");
    const std::string one = "[    0.000] one\n";
    EXPECT_EQ(reader->read(0, 4096), one); // the incomplete line is not in the file yet
    EXPECT_EQ(kind("a/log"), "file 444 size 16");
    EXPECT_EQ(reader->read(one.size(), 4096), "");
    print(first.log, " and half");
    EXPECT_EQ(reader->read(one.size(), 4096), "[    0.000] half and half\n");
    EXPECT_EQ(reader->read(12, 3), "one");
    EXPECT_EQ(kind("a/log"), "file 444 size 42");
    EXPECT_EQ(kind("b/log"), "file 444 size 0");
}

TEST_F(mount_tree, log_with_dropped_lines_begins_later_but_not_for_an_open_reader)
{
    constexpr size_t line_bytes = 16;
    const auto file_of = [&](size_t lines) { return "file 444 size " + std::to_string(lines * line_bytes); };
    for (size_t i = 0; i < 1000; ++i) print(first.log, "old");
    const size_t capacity = first.log.lines().size();
    ASSERT_LT(capacity, 1000u);
    for (size_t i = 0; i < 10; ++i) print(first.log, "new");
    auto reader = tree.open_log("a/log");
    EXPECT_EQ(kind("a/log"), file_of(capacity));
    EXPECT_EQ(reader->read((capacity - 1) * line_bytes, 4096), "[    0.000] new\n");
    EXPECT_EQ(reader->read((capacity - 11) * line_bytes, line_bytes), "[    0.000] old\n");

    for (size_t i = 0; i < 5; ++i) print(first.log, "now");
    EXPECT_EQ(reader->read(capacity * line_bytes, line_bytes), "[    0.000] now\n");
    const auto second_reader = tree.open_log("a/log"); // the file must not become shorter for the first reader
    EXPECT_EQ(kind("a/log"), file_of(capacity + 5));

    for (size_t i = 0; i < capacity + 3; ++i) print(first.log, "far");
    EXPECT_EQ(reader->read((capacity + 5) * line_bytes, 23), "3 lines were dropped\n[ ");
}

} // namespace

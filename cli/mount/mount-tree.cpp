#include "cli/mount/mount-tree.h"

#include <algorithm>
#include <cerrno>

#include "host/kernel/log.h"

namespace cli
{

namespace
{

constexpr mode_t read_only = 0444;
constexpr mode_t folder_mode = 0555;
constexpr size_t lines_at_once = 1024;

mount_entry folder(const std::string& name)
{
    return {name, true, folder_mode, 0};
}

mount_entry from_listing(const kernel::proc_listing& entry)
{
    return {entry.name, entry.is_directory, entry.is_directory ? folder_mode : entry.mode & 0777, 0};
}

// Lines as the log file has them.
std::string file_text(const std::vector<kernel::log_line>& lines)
{
    std::string text;
    for (const kernel::log_line& line : lines) text += kernel::format_line(line) + '\n';
    return text;
}

} // namespace

log_size::log_size(kernel::log& of) : log_(of)
{
    const auto count = [this](const kernel::log_line& line) { written_ += file_text({line}).size(); };
    // Lines from before are counted second; a line that comes in between is at worst counted twice, which shows a
    // follower growth where there is none, and never hides any.
    follower_ = log_.follow(count);
    for (const kernel::log_line& line : log_.lines()) count(line);
}

log_size::~log_size()
{
    log_.unfollow(follower_);
}

void log_size::opened()
{
    const std::lock_guard lock(mutex_);
    if (readers_++ > 0) return;
    const uint64_t written = written_; // before the lines are counted: the file shows too long rather than too short
    uint64_t kept = 0;
    uint64_t next = 0;
    for (std::string piece; !(piece = file_text(log_.lines_from(next, lines_at_once, &next))).empty();)
        kept += piece.size();
    dropped_ = written - std::min(written, kept);
}

void log_size::closed()
{
    const std::lock_guard lock(mutex_);
    --readers_;
}

log_reader::log_reader(kernel::log& log, log_size& size) : log_(log), size_(size)
{
    size_.opened();
    const size_t found = log_.lines_from(0, 1, &first_line_).size();
    next_line_ = first_line_ -= found;
}

std::string log_reader::read(size_t offset, size_t size)
{
    if (offset < piece_offset_) {
        next_line_ = first_line_;
        piece_.clear();
        piece_offset_ = 0;
    }
    while (offset >= piece_offset_ + piece_.size())
        if (!next_piece()) return "";
    return piece_.substr(offset - piece_offset_, size);
}

bool log_reader::next_piece()
{
    uint64_t dropped = 0;
    std::string next = file_text(log_.lines_from(next_line_, lines_at_once, &next_line_, &dropped));
    if (dropped > 0) next.insert(0, kernel::format_dropped(dropped) + '\n');
    if (next.empty()) return false;
    piece_offset_ += piece_.size();
    piece_ = std::move(next);
    return true;
}

mount_tree::mount_tree(const std::vector<kernel::machine*>& machines)
{
    for (kernel::machine* machine : machines) hosts_.push_back(std::make_unique<host_files>(*machine));
}

bool mount_tree::locate(const std::string& path, place* into)
{
    if (path.empty()) return true;
    const size_t slash = path.find('/');
    const std::string name = path.substr(0, slash);
    for (const auto& host : hosts_) {
        if (host->machine.name() != name) continue;
        *into = {host.get(), slash == std::string::npos ? "" : path.substr(slash + 1)};
        return true;
    }
    return false;
}

kernel::machine* mount_tree::machine_of(const std::string& path, std::string* proc_path)
{
    place found;
    if (!locate(path, &found) || !found.host) return nullptr;
    if (found.rest == "proc") {
        *proc_path = "";
        return &found.host->machine;
    }
    if (!found.rest.starts_with("proc/")) return nullptr;
    *proc_path = found.rest.substr(5);
    return &found.host->machine;
}

int mount_tree::stat(const std::string& path, mount_entry* into)
{
    place found;
    if (!locate(path, &found)) return -ENOENT;
    if (found.rest.empty() || found.rest == "proc") {
        *into = folder(path);
        return 0;
    }
    if (found.rest == "log") {
        *into = {"log", false, read_only, found.host->size_of_log.bytes()};
        return 0;
    }
    std::string proc_path;
    kernel::machine* machine = machine_of(path, &proc_path);
    if (!machine) return -ENOENT;
    kernel::proc_listing entry;
    const int result = machine->proc.stat(proc_path, &entry);
    if (result == 0) *into = from_listing(entry);
    return result;
}

int mount_tree::list(const std::string& path, std::vector<mount_entry>* into)
{
    place found;
    if (!locate(path, &found)) return -ENOENT;
    if (!found.host) {
        for (const auto& host : hosts_) into->push_back(folder(host->machine.name()));
        return 0;
    }
    if (found.rest.empty()) {
        into->push_back(folder("proc"));
        into->push_back({"log", false, read_only, found.host->size_of_log.bytes()});
        return 0;
    }
    std::string proc_path;
    kernel::machine* machine = machine_of(path, &proc_path);
    if (!machine) return -ENOTDIR;
    std::vector<kernel::proc_listing> entries;
    const int result = machine->proc.list(proc_path, &entries);
    for (const kernel::proc_listing& entry : entries) into->push_back(from_listing(entry));
    return result;
}

int mount_tree::read_proc(const std::string& path, size_t offset, size_t size, std::string* into)
{
    std::string proc_path;
    kernel::machine* machine = machine_of(path, &proc_path);
    if (!machine) return -ENOENT;
    int result = 0;
    machine->enter("read " + proc_path, [&] { result = machine->proc.read(proc_path, offset, size, into); });
    return result;
}

std::unique_ptr<log_reader> mount_tree::open_log(const std::string& path)
{
    place found;
    if (!locate(path, &found) || !found.host || found.rest != "log") return nullptr;
    return std::make_unique<log_reader>(found.host->machine.log, found.host->size_of_log);
}

} // namespace cli

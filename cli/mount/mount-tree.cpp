#include "cli/mount/mount-tree.h"

#include <algorithm>
#include <cassert>
#include <string_view>

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

mount_entry log_file(const log_size& size)
{
    return {"log", false, read_only, size.bytes()};
}

mount_entry from_listing(const kernel::proc_listing& listing)
{
    return {listing.name, listing.is_directory, listing.is_directory ? folder_mode : listing.mode & 0777, 0};
}

// Formats the lines for the log file.
std::string file_text(const std::vector<kernel::log_line>& lines)
{
    std::string text;
    for (const kernel::log_line& line : lines) text += kernel::format_line(line) + '\n';
    return text;
}

} // namespace

log_size::log_size(kernel::log& log) : log_(log)
{
    const auto count = [this](const kernel::log_line& line) { written_bytes_ += file_text({line}).size(); };
    // First follow the log, then count the older lines. If a line is printed between these two actions, it is counted
    // twice, and the file looks slightly too long. In the opposite order, the line is not counted, and readers do not
    // reach the end of the file.
    follower_ = log_.follow(count);
    for (const kernel::log_line& line : log_.lines()) count(line);
}

log_size::~log_size()
{
    log_.unfollow(follower_);
}

void log_size::add_reader()
{
    const std::lock_guard lock(mutex_);
    if (readers_++ > 0) return;
    // First read written_bytes_, then count the stored lines. If a line is printed between these two actions, the file
    // looks slightly too long. In the opposite order, the file looks too short.
    const uint64_t written_bytes = written_bytes_;
    uint64_t stored_bytes = 0;
    uint64_t next_line = 0;
    while (true) {
        const std::string text = file_text(log_.lines_from(next_line, lines_at_once, &next_line));
        if (text.empty()) break;
        stored_bytes += text.size();
    }
    dropped_bytes_ = written_bytes - std::min(written_bytes, stored_bytes);
}

void log_size::remove_reader()
{
    const std::lock_guard lock(mutex_);
    assert(readers_ > 0);
    --readers_;
}

log_reader::log_reader(kernel::log& log, log_size& size) : log_(log), size_(size)
{
    size_.add_reader();
    const size_t lines =
        log_.lines_from(0, 1, &next_line_).size(); // next_line_ becomes the oldest line's number plus 1
    first_line_ = next_line_ - lines;
    next_line_ = first_line_;
}

std::string log_reader::read(size_t offset, size_t size)
{
    if (offset < piece_offset_) {
        next_line_ = first_line_;
        piece_.clear();
        piece_offset_ = 0;
    }
    while (offset >= piece_offset_ + piece_.size())
        if (!read_next_piece()) return "";
    return piece_.substr(offset - piece_offset_, size);
}

bool log_reader::read_next_piece()
{
    uint64_t dropped_lines = 0;
    std::string text = file_text(log_.lines_from(next_line_, lines_at_once, &next_line_, &dropped_lines));
    if (dropped_lines > 0) text.insert(0, kernel::format_dropped(dropped_lines) + '\n');
    if (text.empty()) return false;
    piece_offset_ += piece_.size();
    piece_ = std::move(text);
    return true;
}

mount_tree::mount_tree(const std::vector<kernel::machine*>& machines)
{
    for (kernel::machine* machine : machines) hosts_.push_back(std::make_unique<host_files>(*machine));
}

std::optional<mount_tree::place> mount_tree::locate(const std::string& path)
{
    if (path.empty()) return place{};
    const size_t slash = path.find('/');
    const std::string name = path.substr(0, slash);
    const std::string rest = slash == std::string::npos ? "" : path.substr(slash + 1);
    for (const auto& host : hosts_)
        if (host->machine.name() == name) return place{host.get(), rest};
    return std::nullopt;
}

mount_tree::proc_place mount_tree::locate_proc(const std::string& path)
{
    constexpr std::string_view folder = "proc";
    const std::optional<place> place = locate(path);
    if (!place || !place->host) return {};
    if (place->rest == folder) return {&place->host->machine, ""};
    if (!place->rest.starts_with(std::string(folder) + "/")) return {};
    return {&place->host->machine, place->rest.substr(folder.size() + 1)};
}

int mount_tree::stat(const std::string& path, mount_entry* entry)
{
    const std::optional<place> place = locate(path);
    if (!place) return -ENOENT;
    if (place->rest.empty() || place->rest == "proc") {
        *entry = folder(path);
        return 0;
    }
    if (place->rest == "log") {
        *entry = log_file(place->host->size_of_log);
        return 0;
    }
    const proc_place proc = locate_proc(path);
    if (!proc.machine) return -ENOENT;
    kernel::proc_listing listing;
    const int result = proc.machine->proc.stat(proc.path, &listing);
    if (result == 0) *entry = from_listing(listing);
    return result;
}

int mount_tree::list(const std::string& path, std::vector<mount_entry>* entries)
{
    const std::optional<place> place = locate(path);
    if (!place) return -ENOENT;
    if (!place->host) {
        for (const auto& host : hosts_) entries->push_back(folder(host->machine.name()));
        return 0;
    }
    if (place->rest.empty()) {
        entries->push_back(folder("proc"));
        entries->push_back(log_file(place->host->size_of_log));
        return 0;
    }
    const proc_place proc = locate_proc(path);
    if (!proc.machine) return -ENOTDIR;
    std::vector<kernel::proc_listing> listings;
    const int result = proc.machine->proc.list(proc.path, &listings);
    for (const kernel::proc_listing& listing : listings) entries->push_back(from_listing(listing));
    return result;
}

int mount_tree::read_proc(const std::string& path, size_t offset, size_t size, std::string* bytes)
{
    const proc_place proc = locate_proc(path);
    if (!proc.machine) return -ENOENT;
    int result = 0;
    proc.machine->enter("read " + proc.path, [&] { result = proc.machine->proc.read(proc.path, offset, size, bytes); });
    return result;
}

std::unique_ptr<log_reader> mount_tree::open_log(const std::string& path)
{
    const std::optional<place> place = locate(path);
    if (!place || place->rest != "log") return nullptr;
    return std::make_unique<log_reader>(place->host->machine.log, place->host->size_of_log);
}

} // namespace cli

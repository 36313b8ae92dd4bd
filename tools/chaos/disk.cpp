#include "tools/chaos/disk.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace chaos
{

namespace
{

constexpr const char* size_option = "size=2m";
constexpr size_t block_bytes = 4096;

bool write_text(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    return static_cast<bool>(file << text << std::flush);
}

// The user and the group keep their numbers in the new user namespace.
bool map_user(uid_t user, gid_t group)
{
    const auto map = [](unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; };
    return write_text("/proc/self/setgroups", "deny") && write_text("/proc/self/uid_map", map(user)) &&
           write_text("/proc/self/gid_map", map(group));
}

} // namespace

ats::result<> allow_disks()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const bool is_inside =
        user == 0 ? unshare(CLONE_NEWNS) == 0 : unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && map_user(user, group);
    if (is_inside && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return {};
    return ats::fail(std::string("this machine allows no mount namespace: ") + std::strerror(errno));
}

disk::disk(std::string folder, bool is_small) : folder_(std::move(folder)), is_small_(is_small)
{
    std::filesystem::create_directory(folder_);
    if (is_small_ && mount("none", folder_.c_str(), "tmpfs", 0, size_option) != 0)
        throw std::system_error(errno, std::generic_category(), "mount " + folder_);
}

disk::~disk()
{
    if (is_small_) umount2(folder_.c_str(), MNT_DETACH);
}

void disk::fill()
{
    if (!is_small_) return;
    std::ofstream filler(folder_ + "/filler", std::ios::binary | std::ios::app);
    const std::string block(block_bytes, 'x');
    while (filler.write(block.data(), block_bytes).flush()) continue;
    was_full_ = true;
}

void disk::empty()
{
    if (is_small_) std::filesystem::remove(folder_ + "/filler");
}

} // namespace chaos

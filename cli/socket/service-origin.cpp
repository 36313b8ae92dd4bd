#include "cli/socket/service-origin.h"
#include "client/socket-path.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/socket/socket.h"
#include "client/descriptor.h"

namespace cli
{

namespace
{

struct service_origin {
    long pid = 0;     // 0: unknown
    std::string unit; // the name of its systemd unit; "" if systemd has not started it
};

bool exists(const std::string& path)
{
    std::error_code error; // not used: if the file cannot be examined, it counts as missing
    return std::filesystem::exists(path, error);
}

// systemd sets SYSTEMD_EXEC_PID to the process ID of the service. A program that the service starts inherits the
// variable, but has another process ID.
bool is_started_by_systemd()
{
    const char* pid = std::getenv("SYSTEMD_EXEC_PID");
    return pid != nullptr && std::to_string(getpid()) == pid;
}

// Returns the name of the systemd unit of this process. It is the last part of the path of the control group, for
// example in "0::/system.slice/ats.service". If no control group is a service, returns the usual name.
std::string unit_of_this_process()
{
    constexpr const char* usual_unit = "ats.service";
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);)
        if (line.ends_with(".service")) return line.substr(line.rfind('/') + 1);
    return usual_unit;
}

// Returns the path without symbolic links. If the path of a socket is a link, the lock file is beside the socket
// itself.
std::string canonical_path_of(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path target = std::filesystem::weakly_canonical(path, error);
    return error ? path : target.string();
}

// Returns the text of a lock file, or "" if the file is not one: in /tmp, another user may have made anything with this
// name. A lock file is a short regular file of root, of this user, or of the owner of the folder.
std::string text_of_lock_file(const std::string& path)
{
    constexpr size_t longest_text = 256;
    const client::descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat attributes = {}, folder = {};
    if (file.get() < 0 || fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return "";
    if (attributes.st_size > off_t{longest_text}) return "";
    const std::string parent = std::filesystem::path(path).parent_path();
    if (stat(parent.empty() ? "." : parent.c_str(), &folder) != 0) return "";
    const uid_t owner = attributes.st_uid;
    if (owner != 0 && owner != geteuid() && owner != folder.st_uid) return "";
    std::string text(longest_text, '\0');
    const ssize_t count = read(file.get(), text.data(), text.size());
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

// Reads the lock file of the service on `socket_path`.
service_origin origin_of_service(const std::string& socket_path)
{
    service_origin origin;
    std::istringstream(text_of_lock_file(lock_file_of(canonical_path_of(socket_path)))) >> origin.pid >> origin.unit;
    return origin;
}

bool has_installed_unit()
{
    if (!exists("/run/systemd/system")) return false;
    for (const char* folder : {"/etc", "/usr/local/lib", "/usr/lib", "/lib"})
        if (exists(std::string(folder) + "/systemd/system/ats.service")) return true;
    return false;
}

} // namespace

std::string lock_file_of(const std::string& socket_path)
{
    return socket_path + ".lock";
}

std::string origin_of_this_process()
{
    return std::to_string(getpid()) + (is_started_by_systemd() ? " " + unit_of_this_process() : "") + "\n";
}

std::string where_to_look(const std::string& socket_path)
{
    const service_origin origin = origin_of_service(socket_path);
    return origin.unit.empty() ? "look at its terminal" : "'journalctl -u " + origin.unit + "' says why";
}

std::string how_to_wake(const std::string& socket_path)
{
    const service_origin origin = origin_of_service(socket_path);
    if (!origin.unit.empty()) return "'systemctl status " + origin.unit + "' shows it";
    if (origin.pid == 0) return "is it stopped, or has it no descriptors left?";
    const std::string pid = std::to_string(origin.pid);
    return "it is process " + pid + "; if it is stopped, 'kill -CONT " + pid + "' lets it go on";
}

std::string how_to_start(const std::string& socket_path)
{
    const service_origin origin = origin_of_service(socket_path);
    if (!origin.unit.empty()) return "'systemctl status " + origin.unit + "' says what became of it";
    if (geteuid() != 0 && socket_path != client::socket_of_machine && exists(client::socket_of_machine))
        return std::string("root's is on ") + client::socket_of_machine +
               ": ask that with sudo, or start your own with 'ats run'";
    if (socket_path == client::socket_of_machine && has_installed_unit())
        return "start it with 'systemctl start ats', or name another --socket";
    return "start one with 'ats run', or name its --socket";
}

} // namespace cli

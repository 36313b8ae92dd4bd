#include "cli/check-service.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/core.h>

#include "cli/socket/socket.h"

namespace cli
{

namespace
{

// The number of open files and memory mappings for a host with one HCA, for each further HCA, and for the process
// itself.
constexpr size_t files_of_host = 3, files_of_process = 64;
constexpr size_t mappings_of_host = 25, mappings_of_hca = 4, mappings_of_process = 500;

std::string name_of_user(uid_t user)
{
    const passwd* entry = getpwuid(user);
    return entry ? entry->pw_name : std::to_string(user);
}

void check_file_mode(findings& findings, const std::string& file)
{
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) return;
    if (status.st_mode & (S_IWGRP | S_IWOTH))
        findings.add_note("configuration", file + " can be written by other users than its owner, " +
                                               name_of_user(status.st_uid) + ": 'chmod go-w' ends that");
}

// Reports if a service runs on the existing socket `path`, or if it is the socket of a service that was killed.
// `is_link` is true if `path` is a symbolic link. A new service replaces a stale socket, but no link.
void check_existing_socket(findings& findings, const std::string& door, const std::string& path,
                           const std::string& option, bool is_link)
{
    const ats::result<socket_state> state = state_of_socket(path);
    if (state && *state == socket_state::live) return findings.add_ok(door, path + ": a service runs");
    if (is_link)
        return findings.add_note(door, path +
                                           " is a link to a socket on which no service runs: to make a socket "
                                           "there, remove the link, or choose another path with " +
                                           option);
    if (!state) return findings.add_missing(door, state.error().text + ": choose another path with " + option);
    findings.add_ok(door, path + " is stale: a new service replaces it");
}

// Checks if this user can create the socket `path` of the service. `door` is the name of the socket in the finding.
// `option` is the option that selects another path.
void check_door(findings& findings, const std::string& door, const std::string& path, const std::string& option)
{
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    const std::string folder = parent.empty() ? "." : parent.string();
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0)
        return findings.add_missing(door, fmt::format("{}: {}: make this folder, or choose another path with {}",
                                                      folder, std::strerror(errno), option));
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        return findings.add_missing(
            door, fmt::format("{} may not make a socket in {}, which belongs to {}: choose another path with {}",
                              name_of_user(geteuid()), folder, name_of_user(status.st_uid), option));
    if (lstat(path.c_str(), &status) != 0) return findings.add_ok(door, path + " can be made");
    if (!S_ISSOCK(status.st_mode) && !S_ISLNK(status.st_mode))
        return findings.add_missing(door, path + " is not a socket: remove it, or choose another path with " + option);
    if (status.st_uid != geteuid())
        return findings.add_missing(
            door, fmt::format("{} belongs to {}: stop the program that made it, or choose another path with {}", path,
                              name_of_user(status.st_uid), option));
    check_existing_socket(findings, door, path, option, S_ISLNK(status.st_mode));
}

void check_limit(findings& findings, const std::string& subject, size_t limit, size_t need, const std::string& advice)
{
    const std::string text = fmt::format("{}, and the hosts need about {}", limit, need);
    if (limit >= need)
        findings.add_ok(subject, text);
    else
        findings.add_missing(subject, text + ": " + advice);
}

} // namespace

std::optional<world_config> check_config(findings& findings, const std::string& file, const identity_options& identity)
{
    const ats::result<world_config> config = read_world_config(file, identity);
    if (!config) {
        findings.add_missing("configuration", config.error().text);
        return std::nullopt;
    }
    const size_t hosts = config->hosts.size();
    findings.add_ok("configuration", fmt::format("{}: {} {} on {} fabric", file, hosts, hosts == 1 ? "host" : "hosts",
                                                 config->fabric.is_real ? "a real" : "an embedded"));
    for (const std::string& warning : config->warnings) findings.add_note("configuration", warning);
    check_file_mode(findings, file);
    return *config;
}

void check_doors(findings& findings, const world_config& config, const std::string& socket)
{
    check_door(findings, "client socket", socket, "--socket");
    if (config.acm.is_served) check_door(findings, "acm socket", config.acm.socket, "'socket' of [acm]");
}

void check_metrics_folder(findings& findings, const world_config& config)
{
    constexpr const char* subject = "metrics folder";
    const std::string& folder = config.metrics.textfile;
    if (folder.empty()) return;
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0)
        return findings.add_note(subject, fmt::format("{}: {}: make this folder, or choose another one with "
                                                      "'textfile' of [metrics]",
                                                      folder, std::strerror(errno)));
    if (!S_ISDIR(status.st_mode))
        return findings.add_note(subject, folder + " is no folder: choose one with 'textfile' of [metrics]");
    const std::string user = name_of_user(geteuid());
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        return findings.add_note(subject, fmt::format("{} may not write to {}, which belongs to {}: {}", user, folder,
                                                      name_of_user(status.st_uid), std::strerror(errno)));
    findings.add_ok(subject, fmt::format("{}: {} may write there", folder, user));
}

void check_limits(findings& findings, const world_config& config)
{
    const size_t hosts = config.hosts.size();
    size_t further_hcas = 0;
    for (const host_config& host : config.hosts) further_hcas += host.hcas.empty() ? 0 : host.hcas.size() - 1;
    rlimit descriptors = {};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0)
        // ats run raises the soft limit to the hard one.
        check_limit(findings, "open files", descriptors.rlim_max, files_of_process + files_of_host * hosts,
                    "raise the limit (ulimit -n, LimitNOFILE= of a unit)");
    size_t mappings = 0;
    if (std::ifstream("/proc/sys/vm/max_map_count") >> mappings)
        check_limit(findings, "memory mappings", mappings,
                    mappings_of_process + mappings_of_host * hosts + mappings_of_hca * further_hcas,
                    "raise it with 'sysctl vm.max_map_count=N'");
}

} // namespace cli

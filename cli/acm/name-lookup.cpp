#include "cli/acm/name-lookup.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "cli/service/requests.h"
#include "client/descriptor.h"
#include "host/world/text.h"

namespace acm
{

namespace
{

using cli::json;

constexpr int output_of_program = 1; // standard output

std::string read_all(int source)
{
    std::string text;
    std::array<char, 4096> piece;
    ssize_t size = 0;
    while ((size = read(source, piece.data(), piece.size())) > 0 || (size < 0 && errno == EINTR))
        if (size > 0) text.append(piece.data(), static_cast<size_t>(size));
    return text;
}

// Starts another process of this program, whose standard output is `output`. Returns its process ID, or 0 on failure.
pid_t start_self(const std::array<const char*, 7>& arguments, int output)
{
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, output, output_of_program);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t no_signals;
    sigemptyset(&no_signals);
    // The service blocks the signals that end it. The new process must not block them.
    posix_spawnattr_setsigmask(&attributes, &no_signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = 0;
    const int error =
        posix_spawn(&child, "/proc/self/exe", &files, &attributes, const_cast<char* const*>(arguments.data()), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error == 0 ? child : 0;
}

// Returns the output of `ats sa show --real` for a name. The command runs in another process: this process already uses
// the port, and ibsim's library supports only one user of a port in each process.
ats::result<json> records_at_real_sa(const std::string& name)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return ats::fail("no pipe to the program that asks the SA");
    const client::descriptor output(ends[0]);
    client::descriptor input(ends[1]);
    const std::string filter = "--name=" + name;
    const pid_t child = start_self({"ats", "sa", "show", "--real", filter.c_str(), "--json", nullptr}, input.get());
    input.reset();
    if (child == 0) return ats::fail("the program that asks the SA does not start");
    json answer = json::parse(read_all(output.get()), nullptr, false);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (!answer.is_object() || !answer.contains("records")) return ats::fail("the SA did not answer");
    return answer;
}

std::optional<uint32_t> first_address(const json& records)
{
    if (records.empty()) return std::nullopt;
    return world::parse_ipv4(records.at(0).at("address"));
}

} // namespace

ats::result<std::optional<uint32_t>> address_of_name(cli::running_hosts& hosts, const std::string& name)
{
    const ats::result<json> answer = cli::answer_resolve_name(hosts, {{"name", name}});
    if (!answer) return ats::pass_on(answer);
    if (answer->value("status", "") == "timed out") return ats::fail("the SA did not answer");
    if (!answer->value("real", false)) return first_address(answer->value("matches", json::array()));
    const ats::result<json> list = records_at_real_sa(name);
    if (!list) return ats::pass_on(list);
    return first_address(list->at("records"));
}

} // namespace acm

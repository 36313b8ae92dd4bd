// What every client command shares: the socket, the host it is about, and how answers are shown.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "cli/socket/socket.h"
#include <CLI/CLI.hpp>

namespace cli
{

using json = nlohmann::json;

struct client_options {
    std::string socket = default_socket_path();
    std::string host; // "": the first
    bool as_json = false;
    std::string gid_format = "hex"; // of text, "hex" or "ipv6"
    double timeout_seconds = 5;     // without a sign of life of the service
};

constexpr const char* one_host = "The host to ask (default: the first)";
constexpr const char* no_host = "";

// Adds --json, --socket, --timeout and, unless it means nothing to the command, --host.
std::shared_ptr<client_options> add_client_options(CLI::App& command, const std::string& host_meaning);

// Adds --gid-format, for commands that show GIDs; and an answer with its GIDs in the notation that it asks for.
void add_gid_format_option(CLI::App& command, client_options& options);
json in_wanted_notation(json answer, const client_options& options);

// One conversation with the service. Throws a failure when nobody answers. An answer may take its time, as that of a
// silent SA does, and a followed log may have no news: a service that says nothing is asked on a second connection
// whether it is alive, and the client waits as long as it is.
class client
{
  public:
    explicit client(const client_options& options);

    // Sends a request and returns its answer. A refusal, {"error", "exit_code"}, comes back like any other answer.
    json ask(json request);

    // The next line of an answer that goes on.
    json next();

  private:
    bool is_alive() const;

    const client_options options_;
    const std::chrono::milliseconds half_timeout_; // one half for the answer, the other for the sign of life
    line_channel channel_;
};

// Throws the failure that a refusal stands for; nothing for any other answer.
void throw_if_refused(const json& answer);

// Asks once and writes the answer: as JSON, or with `show` for people.
void ask_and_show(const client_options& options, const json& request, void (*show)(std::ostream&, const json&));

} // namespace cli

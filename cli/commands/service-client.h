// The common parts of all client commands: their options, the connection to the service, and the output of answers.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "client/ats/client.h"
#include "client/socket-path.h"
#include "host/result.h"

namespace cli
{

using json = nlohmann::json;

struct client_options {
    std::string socket = client::default_socket_path();
    std::string host; // "" means the first host, or all hosts; see the help of --host
    bool as_json = false;
    std::string gid_format = "hex"; // in text output: "hex" or "ipv6"
    double timeout_seconds = 5;     // give up if the service sends nothing and answers no ping for this time
};

// Values for the help text of --host: for a command that asks one host, and for a command without --host.
constexpr const char* one_host = "The host to ask (default: the first)";
constexpr const char* no_host = "";

// Adds --json, --socket, --timeout and --host. `host_meaning` is the help text of --host; `no_host` omits --host.
std::shared_ptr<client_options> add_client_options(CLI::App& command, const std::string& host_meaning);

// Adds --gid-format, for commands that show GIDs.
void add_gid_format_option(CLI::App& command, client_options& options);

// Makes `body` the action of the command. `outcome` receives the exit code or the error that `body` returns. `body` may
// throw a json::exception if the service's answer lacks a key. `outcome` then receives an error (unreachable).
void set_client_action(CLI::App& command, ats::result<int>& outcome, std::function<ats::result<int>()> body);

// Returns the answer with its GIDs in the notation that --gid-format selects.
json with_gid_format(json answer, const client_options& options);

// A connection to the service, through libatsclient. An answer may take long: the SA may be silent, or a followed log
// may have no new line. If the service sends nothing for half the timeout, the client pings it on a second connection.
// The client waits as long as the service answers the pings. If a ping is not answered within the other half of the
// timeout, the call fails (unreachable).
class service_client
{
  public:
    static ats::result<service_client> open(const client_options& options);

    // Sends a request and returns its answer. If the service refuses the request, the answer is {"error", "exit_code"}.
    ats::result<json> ask(json request);

    // Does the same as ask(), but returns an answer {"error", "exit_code"} as an error.
    ats::result<json> ask_accepted(json request);

    // Reads the next line of an answer that has several lines.
    ats::result<json> next();

    // send() sends a request and does not wait for its answer; it returns the request's id. receive() waits for the
    // next answer to any of these requests. They are answered in any order. If the service hangs up, receive() returns
    // the answers that have arrived before it fails. ask() ends all these requests.
    struct reply {
        uint64_t id;
        json answer; // {"error", "exit_code"} if the service refuses the request
    };
    ats::result<uint64_t> send(json request);
    ats::result<reply> receive();

  private:
    struct closing {
        void operator()(ats_client_t* client) const { ats_close(client); }
    };
    using library_client = std::unique_ptr<ats_client_t, closing>;

    service_client(const client_options& options, library_client library)
        : options_(options), library_(std::move(library))
    {
    }
    ats::result<std::string> line_of(json request) const;
    bool is_alive() const;

    client_options options_;
    library_client library_;
};

// Opens a connection, sends one request and returns its answer. If the service refuses the request, returns an error.
ats::result<json> ask_once(const client_options& options, const json& request);

// Prints an answer: as JSON if the command has --json, otherwise as text with `show_text`.
using show_text_t = void (*)(std::ostream& output, const json& answer);
void show_answer(const client_options& options, const json& answer, show_text_t show_text);

// Calls ask_once() and show_answer(). Returns the exit code.
ats::result<int> ask_and_show(const client_options& options, const json& request, show_text_t show_text);

} // namespace cli

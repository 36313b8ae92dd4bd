#include "cli/server/server.h"

#include <future>

#include "cli/server/answer-lines.h"
#include "cli/server/lookup-requests.h"
#include "cli/server/request-access.h"
#include "cli/server/request-types.h"
#include "cli/service/requests.h"
#include "console/errors.h"
#include "console/gids.h"

namespace cli
{

namespace
{

using json = nlohmann::json;

constexpr int protocol_version = 1;
constexpr size_t worker_threads = 4;

} // namespace

ats::result<std::unique_ptr<server>> server::start(running_hosts& hosts, std::unique_ptr<listening_socket> socket,
                                                   const server_options& options)
{
    std::unique_ptr<server> result(new server(hosts, std::move(socket), options));
    if (const ats::result<> listen_result = result->listen(); !listen_result) return ats::pass_on(listen_result);
    return result;
}

server::server(running_hosts& hosts, std::unique_ptr<listening_socket> socket, const server_options& options)
    : hosts_(hosts), listener_(std::move(socket), options.report), options_(options),
      followers_(
          loop_, [this](uint64_t number) { return find(number); },
          [this](const return_ticket& ticket, const std::string& line) { finish(ticket, line); }),
      workers_(worker_threads)
{
    loop_.set_end_of_round([this] { flush_all(); });
    loop_.start();
}

// Starts the listener in the loop's thread, because all handles of a libuv loop belong to one thread. Waits for the
// result.
ats::result<> server::listen()
{
    std::promise<int> outcome;
    loop_.post([&] {
        outcome.set_value(listener_.start(loop_.uv(), [this](uv_stream_t* listener) { accept_client(listener); }));
    });
    const int error = outcome.get_future().get();
    if (error == 0) return {};
    return ats::fail(std::string("cannot serve clients: ") + uv_strerror(error));
}

server::~server()
{
    std::promise<void> close_promise;
    loop_.post([&] {
        is_stopping_ = true;
        listener_.close();
        for (auto& [number, client] : conversations_) client->pause();
        close_promise.set_value();
    });
    close_promise.get_future().wait(); // from here on, no new requests come
    workers_.stop();
    lookups_.stop();
    loop_.post([this] {
        for (auto& [number, client] : conversations_) {
            client->flush();
            client->cut_off();
        }
    });
    loop_.stop();
}

// ---- connections ----

void server::accept_client(uv_stream_t* listener)
{
    auto client = std::make_unique<conversation>(*this, loop_.uv(), new_connection_number(), options_.limits);
    conversation& new_client = *client;
    conversations_.emplace(new_client.number(), std::move(client));
    if (new_client.accept(listener)) admit(new_client);
}

// Counts a new connection of a user. If the user has too many connections, refuses the new one and ends it.
void server::admit(conversation& client)
{
    user_share& share = users_[client.peer().user];
    ++share.connections;
    client.is_admitted = true;
    door_statistics& statistics = hosts_.statistics().clients;
    cli::count(statistics.accepted);
    ++statistics.open;
    if (share.connections <= options_.limits.connections) return;
    cli::count(statistics.connections_reached);
    refuse(client, std::nullopt,
           {ats::error_kind::unreachable, "this user has " + std::to_string(options_.limits.connections) +
                                              " connections already: close some, or share them"});
    client.hang_up();
}

void server::conversation_ended(conversation& source)
{
    const queue_place place{source.peer().user, source.number()};
    if (source.is_admitted) {
        user_share& share = users_[place.user];
        --share.connections;
        --hosts_.statistics().clients.open;
        share.open_requests -= source.open_requests;
        share.open_bytes -= source.open_bytes;
        if (share.connections == 0) users_.erase(place.user);
    }
    followers_.forget(place.connection);
    drop(place);
    conversations_.erase(place.connection);
}

void server::drop(const queue_place& place)
{
    workers_.remove(place);
    lookups_.remove(place);
}

conversation* server::find(uint64_t number)
{
    const auto entry = conversations_.find(number);
    return entry == conversations_.end() ? nullptr : entry->second.get();
}

void server::flush_all()
{
    std::vector<uint64_t> numbers;
    numbers.swap(conversations_to_flush_);
    for (const uint64_t number : numbers)
        if (conversation* client = find(number)) client->flush();
    if (!conversations_to_flush_.empty())
        loop_.post([] {}); // flush() can queue more lines: start another round of the loop, which ends with their flush
}

// ---- requests ----

void server::take_line(conversation& source, std::string_view line)
{
    std::optional<uint64_t> id;
    const ats::result<request> request = request_of(line, {source.peer().user, source.number()}, id);
    if (!request) return refuse(source, id, request.error());
    try {
        carry_out(source, *request);
    } catch (...) {
        refuse(source, id, caught_error());
    }
}

// Checks a request and executes it, or passes it to the part that executes it.
void server::carry_out(conversation& source, const request& request)
{
    if (request.name == "hello") return greet(source, request);
    if (!source.is_greeted) {
        refuse(source, request.ticket.id, malformed("say hello first: {\"request\":\"hello\",\"protocol\":1}"));
        return source.hang_up();
    }
    const request_type* const type = find_type(request.name, request.object);
    if (!type) {
        const std::string text = "this service does not know the request " + console::quote(request.name);
        return refuse(source, request.ticket.id, {ats::error_kind::invalid, text});
    }
    if (const auto refusal = refusal_of(options_.access, source.peer(), *type, request.object)) {
        cli::count(hosts_.statistics().clients.denied);
        return refuse(source, request.ticket.id, *refusal);
    }
    if (request.name == "ping") return source.send(line_of(done("alive"), request.ticket.id));
    if (const auto excess = excess_of(request.ticket.place.user)) {
        cli::count(hosts_.statistics().clients.questions_reached);
        return refuse(source, request.ticket.id, *excess);
    }
    if (type->wrong_members)
        if (const std::optional<ats::error> wrong = type->wrong_members(request.object))
            return refuse(source, request.ticket.id, *wrong);
    if (request.name == "log") return follow_log(source, request);
    if (is_simple_lookup(request)) return look_up(source, request);
    hand_to_workers(source, request, *type);
}

// Returns an error if the unanswered requests of a user reach the limit of their number or of their memory. The next
// request does not count. One request may therefore be larger than the limit.
std::optional<ats::error> server::excess_of(uid_t user) const
{
    const user_share& share = users_.at(user);
    const auto error = [](const std::string& state) {
        return ats::error(ats::error_kind::unreachable, "this user has " + state + " already: wait for answers first");
    };
    const size_t questions = options_.limits.questions;
    if (share.open_requests >= questions) return error(std::to_string(questions) + " questions outstanding");
    if (share.open_bytes / bytes_per_question >= questions)
        return error("questions of " + std::to_string(share.open_bytes) + " bytes outstanding");
    return std::nullopt;
}

void server::greet(conversation& source, const request& request)
{
    source.is_greeted = request.object.value("protocol", json()) == protocol_version;
    if (source.is_greeted)
        return source.send(line_of({{"protocol", protocol_version}, {"version", ATS_VERSION}}, request.ticket.id));
    refuse(source, request.ticket.id,
           malformed("this service speaks protocol " + std::to_string(protocol_version) +
                     " only: use a client of its version, " ATS_VERSION));
    source.hang_up();
}

void server::refuse(conversation& source, const std::optional<uint64_t>& id, const ats::error& error)
{
    source.send(line_of(refusal(error), id));
}

void server::line_too_long(conversation& source)
{
    cli::count(hosts_.statistics().clients.line_bytes_reached);
    refuse(source, {}, malformed("a line has at most " + std::to_string(options_.limits.line_bytes) + " bytes"));
}

// Counts a request that is answered later.
void server::count(conversation& source, const return_ticket& ticket)
{
    user_share& share = users_[ticket.place.user];
    ++share.open_requests;
    ++source.open_requests;
    share.open_bytes += ticket.bytes;
    source.open_bytes += ticket.bytes;
}

// Counts a request that is answered later. If it has no id, also pauses the conversation: the answer must be sent
// before the next line is read.
void server::begin(conversation& source, const return_ticket& ticket)
{
    count(source, ticket);
    if (!ticket.id) source.pause();
}

// Sends the answer of a counted request, and counts the request no longer. Does nothing if the connection has ended.
void server::finish(const return_ticket& ticket, const std::string& line)
{
    conversation* source = find(ticket.place.connection);
    if (!source) return;
    user_share& share = users_[ticket.place.user];
    --share.open_requests;
    --source->open_requests;
    share.open_bytes -= ticket.bytes;
    source->open_bytes -= ticket.bytes;
    source->send(line);
    if (!ticket.id && !is_stopping_) source->resume();
    source->end_if_done();
}

// Makes the loop's thread call finish(). Any thread.
void server::finish_soon(const return_ticket& ticket, std::string line)
{
    loop_.post([this, ticket, line = std::move(line)] { finish(ticket, line); });
}

// Executes a request and returns the line with its answer. If `deadline` has passed, does not execute it and returns
// late_line(). Only lookups have a deadline. Runs in a worker's thread.
std::string server::answer_line(const request& request, const request_type& type, lookups::time_point deadline)
{
    try {
        if (std::chrono::steady_clock::now() > deadline) return late_line(request);
        ats::result<json> answer = type.answer(hosts_, request.object);
        if (answer) console::add_gid6(*answer);
        return line_of(answer ? *answer : refusal(answer.error()), request.ticket.id);
    } catch (...) {
        return line_of(refusal(caught_error()), request.ticket.id);
    }
}

// A lookup has waited for a worker until its time (within_ms) was over: returns its answer, "timed out". Counts a
// lookup of an address or a GID, but not one of a name. Throws a json::exception if "host" has the wrong type. Runs in
// a worker's thread.
std::string server::late_line(const request& request)
{
    const lookups::answer answer = lookups::late_answer(false);
    const bool is_by_gid = request.name == "reverse";
    const ats::result<world::host*> host = find_host(hosts_, request.object);
    if (host && !request.object.contains("name"))
        hosts_.statistics_of((*host)->machine())
            .lookups.note(is_by_gid ? lookup_kind::gid : lookup_kind::address, std::get<world::resolution>(answer));
    return line_of(answer, is_by_gid, false, request.ticket.id);
}

void server::hand_to_workers(conversation& source, const request& request, const request_type& type)
{
    const lookups::time_point deadline = deadline_of(request);
    begin(source, request.ticket);
    workers_.push(request.ticket.place, [this, request, &type, deadline] {
        finish_soon(request.ticket, answer_line(request, type, deadline));
    });
}

// ---- lookups ----

lookups& server::lookups_of(kernel::machine& machine)
{
    return lookups_.at(machine, hosts_.statistics_of(machine).lookups);
}

// Answers a lookup. An answer from a cache is passed to the conversation before this call returns.
void server::look_up(conversation& source, const request& request)
{
    const ats::result<world::host*> host = find_host(hosts_, request.object);
    if (!host) return refuse(source, request.ticket.id, host.error());
    const ats::result<lookups::subject> subject = subject_of(request);
    if (!subject) return refuse(source, request.ticket.id, subject.error());
    kernel::machine& machine = (*host)->machine();
    const bool is_by_gid = request.name == "reverse";
    const bool is_cached_only = request.object.value("cached", false);
    const return_ticket ticket = request.ticket;
    begin(source, ticket); // from here on, finish() must be called: an exception would leave the request counted
    if (is_cached_only) {
        const auto answer = look_into_cache(machine, *subject, hosts_.statistics_of(machine).lookups);
        return finish(ticket, line_of(answer, is_by_gid, true, ticket.id));
    }
    const auto loop_thread = std::this_thread::get_id();
    const auto callback = [=, this](const lookups::answer& answer) {
        const std::string line = line_of(answer, is_by_gid, false, ticket.id);
        if (std::this_thread::get_id() == loop_thread)
            finish(ticket, line);
        else
            finish_soon(ticket, line);
    };
    try {
        lookups_of(machine).ask(ticket.place, *subject, callback, deadline_of(request));
    } catch (...) { // for example, no thread could be created
        finish(ticket, line_of(refusal(caught_error()), ticket.id));
    }
}

// ---- logs ----

void server::follow_log(conversation& source, const request& request)
{
    const ats::result<world::host*> host = find_host(hosts_, request.object);
    if (!host) return refuse(source, request.ticket.id, host.error());
    const int level = trace_level_of(request.object).value(); // wrong_level() has checked it
    const bool is_followed = request.object.value("follow", false);
    followers_.end(source);
    if (is_followed)
        count(source, request.ticket); // does not pause the conversation, because this answer may never end
    else
        begin(source, request.ticket);
    followers_.begin(source, request.ticket, (*host)->machine().log, level, is_followed);
}

ats::result<> server::set_options(const server_options& options)
{
    loop_.post([this, options] {
        options_ = options;
        followers_.end_refused(options.access);
    });
    return listener_.set_for_all(options.access.is_open_to_others());
}

// The client has closed its sending side. A client that reads a log then needs no more lines, so its conversation ends.
void server::input_ended(conversation& source)
{
    if (followers_.contains(source)) source.cut_off();
}

void server::became_writable(conversation& source)
{
    followers_.pump(source);
}

} // namespace cli

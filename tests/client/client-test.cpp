#include <arpa/inet.h>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "client/ats/client.h"
#include "tests/client/fake-service.h"

namespace client_tests
{

namespace
{

using clock = std::chrono::steady_clock;

struct client_deleter {
    void operator()(ats_client_t* client) const { ats_close(client); }
};
using client_ptr = std::unique_ptr<ats_client_t, client_deleter>;

client_ptr open_client()
{
    ats_client_t* client = nullptr;
    EXPECT_EQ(ats_open(&client, fake_service::path().c_str()), ATS_OK) << ats_last_error();
    return client_ptr(client);
}

ats_options_t with_timeout(int milliseconds)
{
    ats_options_t options = ATS_OPTIONS_INIT;
    options.timeout_ms = milliseconds;
    return options;
}

ats_answer_t resolve(const client_ptr& client, int timeout_ms = 5000)
{
    const ats_options_t options = with_timeout(timeout_ms);
    ats_answer_t answer{};
    ats_resolve(client.get(), inet_addr("10.0.0.2"), &options, &answer);
    return answer;
}

// Returns a JSON object of so many levels. It has the id of a client's first question.
std::string nested(size_t levels)
{
    const size_t lists = levels - 1;
    return R"({"request":"x","text":"]\"[[[[[[[[[[[[[[[[","id":1,"list":)" + std::string(lists, '[') + "1" +
           std::string(lists, ']') + "}";
}

// Collects `count` answers like an event loop: polls the descriptor. Returns fewer answers if the descriptor is not
// ready for 20 s.
std::vector<ats_answer_t> collect(const client_ptr& client, size_t count)
{
    std::vector<ats_answer_t> all;
    while (all.size() < count) {
        pollfd ready{ats_descriptor(client.get()), POLLIN, 0};
        constexpr int patience_milliseconds = 20'000;
        if (poll(&ready, 1, patience_milliseconds) <= 0) break;
        ats_answer_t answers[7];
        const size_t taken = ats_collect(client.get(), answers, std::size(answers));
        all.insert(all.end(), answers, answers + taken);
    }
    return all;
}

TEST(client, answers_blocking_and_polled_questions_of_many_threads_at_once)
{
    fake_service service;
    service.serve();
    const client_ptr client = open_client();
    constexpr int threads = 4, questions = 500;
    std::atomic<int> found = 0;
    std::vector<std::thread> askers;
    for (int i = 0; i < threads; ++i)
        askers.emplace_back([&] {
            for (int k = 0; k < questions; ++k) found += resolve(client).status == ATS_OK;
        });
    for (uint64_t tag = 1; tag <= questions; ++tag)
        ASSERT_EQ(ats_submit_resolve(client.get(), inet_addr("10.0.0.2"), nullptr, tag), ATS_OK) << ats_last_error();
    const std::vector<ats_answer_t> answers = collect(client, questions);
    for (std::thread& asker : askers) asker.join();
    EXPECT_EQ(found, threads * questions);
    ASSERT_EQ(answers.size(), size_t{questions});
    std::vector<bool> seen(questions + 1);
    for (const ats_answer_t& answer : answers) {
        EXPECT_EQ(answer.status, ATS_OK) << answer.reason;
        EXPECT_FALSE(seen.at(answer.tag)) << "answered twice: " << answer.tag;
        seen[answer.tag] = true;
    }
}

TEST(client, sends_its_time_limit_and_reads_every_field_of_an_answer)
{
    std::atomic<int> limit_ms = 0;
    fake_service service(after_hello([&](const json& request) {
        limit_ms = request.value("within_ms", 0);
        return usual(request);
    }));
    service.serve();
    const client_ptr client = open_client();
    const ats_answer_t answer = resolve(client, 60'000);
    EXPECT_EQ(limit_ms, 60'000);
    in6_addr gid;
    inet_pton(AF_INET6, "fe80::200:0:2:1", &gid);
    EXPECT_EQ(answer.status, ATS_OK);
    EXPECT_EQ(answer.source, ATS_SOURCE_SA);
    EXPECT_EQ(answer.address, inet_addr("10.0.0.2"));
    EXPECT_EQ(memcmp(answer.gid, &gid, sizeof gid), 0);
    EXPECT_EQ(answer.microseconds, 7u);
    EXPECT_EQ(answer.verified, -1);
}

// A recursive function over the values of a line would overflow the stack.
TEST(client, rejects_an_answer_of_many_levels)
{
    for (const size_t levels : {16, 17, 200'000}) {
        fake_service service(after_hello([levels](const json&) { return reaction{nested(levels) + "\n"}; }));
        service.serve();
        char* answer = nullptr;
        const ats_status_t status = ats_request(open_client().get(), nested(16).c_str(), 20'000, &answer);
        EXPECT_EQ(status, levels == 16 ? ATS_OK : ATS_INVALID) << levels;
        ats_free(answer);
    }
}

// A service may be hostile or broken, or may not be ats. Every question must end with a status within its time limit.
TEST(client, ends_every_question_whatever_the_service_sends)
{
    const std::string id1 = R"({"id":1,)";
    const struct {
        const char* what;
        behaviour react;
        ats_status_t status;
    } cases[] = {
        {"silence", after_hello([](const json&) { return reaction{}; }), ATS_NO_ANSWER},
        {"half a line", after_hello([](const json&) { return reaction{R"({"id":1,"stat)"}; }), ATS_NO_ANSWER},
        {"an answer to nobody", after_hello([](const json&) { return reaction{"{\"id\":99,\"status\":\"ok\"}\n"}; }),
         ATS_NO_ANSWER},
        {"no JSON", after_hello([](const json&) { return reaction{"HTTP/1.1 400\r\n"}; }), ATS_INVALID},
        {"NUL bytes", after_hello([](const json&) { return reaction{std::string("\0\0\n", 3)}; }), ATS_INVALID},
        {"no address", after_hello([&](const json&) { return reaction{id1 + "\"status\":\"ok\"}\n"}; }), ATS_INVALID},
        {"wrong types", after_hello([&](const json&) { return reaction{id1 + "\"status\":7,\"gid6\":[]}\n"}; }),
         ATS_INVALID},
        {"an error", after_hello([&](const json&) { return reaction{id1 + "\"error\":\"no\"}\n"}; }), ATS_REFUSED},
        {"no answer of the SA", after_hello([&](const json&) { return reaction{id1 + "\"status\":\"timed out\"}\n"}; }),
         ATS_NO_ANSWER},
        {"a hang-up at every question", after_hello([](const json&) {
             return reaction{"", true};
         }),
         ATS_NOT_CONNECTED},
        {"another version", [](const json&) { return reaction{"{\"protocol\":2}\n"}; }, ATS_REFUSED},
        {"a refusal of the connection",
         [](const json&) {
             return reaction{"{\"error\":\"too many\"}\n", true};
         },
         ATS_REFUSED},
    };
    for (const auto& [what, react, status] : cases) {
        SCOPED_TRACE(what);
        fake_service service(react);
        service.serve();
        const client_ptr client = open_client();
        const bool is_slow = status == ATS_NO_ANSWER;
        const ats_answer_t answer = resolve(client, is_slow ? 50 : 20'000);
        EXPECT_EQ(answer.status, status) << answer.reason;
    }
}

// Uses the client of the parent in a child of fork(). Returns the number of faults.
int use_in_child(ats_client_t* client)
{
    ats_answer_t answer{};
    char* text = nullptr;
    int faults = 0;
    const auto expect = [&](bool is_right) { faults += is_right ? 0 : 1; };
    expect(ats_resolve(client, 1, nullptr, &answer) == ATS_INVALID);
    expect(std::string(answer.reason) == "a child of fork() must open its own client");
    expect(ats_submit_resolve(client, 1, nullptr, 1) == ATS_INVALID);
    expect(ats_wait(client, &answer, 1, -1) == 0);
    expect(ats_request(client, "{\"request\":\"ping\"}", -1, &text) == ATS_INVALID);
    expect(ats_request_begin(client, "{\"request\":\"ping\"}", -1) == ATS_INVALID);
    expect(ats_request_next(client, -1, &text) == ATS_INVALID);
    ats_close(client);
    return faults;
}

// Both processes would use the same ids on the same socket, and get each other's answers. The threads that wait when
// the process forks do not exist in the child.
TEST(client, belongs_to_one_process)
{
    std::atomic<int> questions = 0;
    auto service = std::make_unique<fake_service>(after_hello([&](const json& request) {
        ++questions;
        return request.value("address", "") == "10.0.0.2" ? usual(request) : reaction{};
    }));
    service->serve();
    const client_ptr client = open_client();
    std::vector<std::thread> waiting;
    for (int i = 0; i < 2; ++i)
        waiting.emplace_back([&] {
            const ats_options_t options = with_timeout(60'000);
            ats_answer_t answer{};
            ats_resolve(client.get(), inet_addr("10.0.0.3"), &options, &answer);
        });
    while (questions < 2) std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        alarm(60); // ends a child that waits for ever
        _exit(use_in_child(client.get()));
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(resolve(client).status, ATS_OK);
    service.reset();
    for (std::thread& thread : waiting) thread.join();
}

TEST(client, reconnects_to_a_service_that_was_restarted)
{
    auto service = std::make_unique<fake_service>();
    service->serve();
    const client_ptr client = open_client();
    ASSERT_EQ(resolve(client).status, ATS_OK);
    service.reset();
    EXPECT_EQ(resolve(client).status, ATS_NOT_CONNECTED);
    EXPECT_STREQ(ats_status_text(ATS_NOT_CONNECTED), "not connected");
    service = std::make_unique<fake_service>();
    service->serve();
    EXPECT_EQ(resolve(client).status, ATS_OK);
    service = nullptr; // the service ends, and starts again before the next question
    service = std::make_unique<fake_service>();
    service->serve();
    EXPECT_EQ(resolve(client).status, ATS_OK);
    char* answer = nullptr; // of an ats_request(), which the client never sends a second time
    EXPECT_EQ(ats_request(client.get(), R"({"request":"ping"})", 5000, &answer), ATS_OK) << ats_last_error();
    ats_free(answer);
}

TEST(client, completes_every_submission_when_the_service_dies)
{
    constexpr uint64_t count = 100;
    auto service = std::make_unique<fake_service>(after_hello([](const json&) { return reaction{}; }));
    service->serve();
    const client_ptr client = open_client();
    for (uint64_t tag = 0; tag < count; ++tag) ASSERT_EQ(ats_submit_resolve(client.get(), 1, nullptr, tag), ATS_OK);
    service.reset();
    const std::vector<ats_answer_t> answers = collect(client, count);
    ASSERT_EQ(answers.size(), count);
    for (const ats_answer_t& answer : answers) EXPECT_EQ(answer.status, ATS_NOT_CONNECTED);
    EXPECT_EQ(ats_wait(client.get(), nullptr, 0, 0), 0u);
}

TEST(client, gives_up_in_time_on_a_service_that_takes_no_connections)
{
    const fake_service stopped(usual, 0); // listens, but accepts no connection
    std::vector<client_ptr> clients;
    const auto begin = clock::now();
    for (int i = 0; i < 4; ++i) { // the first connections fill the backlog
        clients.push_back(open_client());
        EXPECT_EQ(resolve(clients.back(), 50).status, ATS_NO_ANSWER);
    }
    EXPECT_LT(clock::now() - begin, std::chrono::seconds(10));
}

TEST(client, wakes_the_poller_when_the_time_of_a_question_is_over)
{
    fake_service service(after_hello([](const json&) { return reaction{}; }));
    service.serve();
    const client_ptr client = open_client();
    const ats_options_t soon = with_timeout(30);
    EXPECT_EQ(resolve(client, 1).status, ATS_NO_ANSWER);
    ASSERT_EQ(ats_submit_resolve(client.get(), 1, nullptr, 1), ATS_OK);
    ASSERT_EQ(ats_submit_resolve(client.get(), 1, &soon, 2), ATS_OK);
    const std::vector<ats_answer_t> answers = collect(client, 1);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].tag, 2u);
    EXPECT_EQ(answers[0].status, ATS_NO_ANSWER);
}

TEST(client, refuses_wrong_arguments)
{
    const client_ptr client = open_client();
    ats_answer_t answer{};
    const struct {
        uint32_t size, flags;
        int32_t timeout;
    } wrong[] = {{0, 0, 5},
                 {sizeof(ats_options_t), 3, 5},
                 {sizeof(ats_options_t), 8, 5},
                 {sizeof(ats_options_t), 6, 5},
                 {sizeof(ats_options_t), 0, 0}};
    for (const auto& [size, flags, timeout] : wrong) {
        const ats_options_t options{size, flags, timeout, 0, nullptr};
        EXPECT_EQ(ats_resolve(client.get(), 1, &options, &answer), ATS_INVALID);
        EXPECT_STRNE(ats_last_error(), "");
        EXPECT_EQ(answer.status, ATS_INVALID);
    }
    for (const std::string& request : {std::string("not JSON"), nested(17), std::string(70'000, ' ') + nested(1)}) {
        char* text = nullptr;
        EXPECT_EQ(ats_request(client.get(), request.c_str(), 5, &text), ATS_INVALID) << request.substr(0, 200);
        EXPECT_EQ(text, nullptr);
    }
    ats_client_t* none = nullptr;
    EXPECT_EQ(ats_open(&none, std::string(200, 'x').c_str()), ATS_INVALID);
    EXPECT_EQ(none, nullptr);
}

// Every user may put a file into /tmp. Such a file must not keep others from the service of the machine.
TEST(client, ignores_a_file_in_tmp_that_is_no_socket_of_its_user)
{
    const std::string file = "/tmp/ats-" + std::to_string(geteuid()) + ".sock";
    const int descriptor = open(file.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) GTEST_SKIP() << file << " exists";
    unsetenv("ATS_SOCKET");
    setenv("XDG_RUNTIME_DIR", "/nowhere", 1);
    char path[100];
    ats_default_socket(path, sizeof path);
    EXPECT_STRNE(path, file.c_str());
    close(descriptor);
    unlink(file.c_str());
}

} // namespace

} // namespace client_tests

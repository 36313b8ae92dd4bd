// `ats resolve` and its relatives ask many questions at the same time, and print the answers in the order of the
// arguments.
#include <mutex>

#include "tests/cli/program.h"
#include "tests/client/fake-service.h"
#include "tools/clients/raw-connection.h"

namespace
{

using client_tests::reaction;

std::vector<std::string> resolve_command(const std::string& socket, int address_count)
{
    std::vector<std::string> arguments = {"resolve", "--socket", socket, "--timeout", "60"};
    for (int i = 1; i <= address_count; ++i) arguments.push_back("10.0.1." + std::to_string(i));
    return arguments;
}

// Returns the number of addresses that the SA is being asked about.
int pending_addresses(raw_connection& connection)
{
    const json metrics = json::parse(connection.ask(R"({"request":"metrics"})"));
    const std::string text = metrics.at("text");
    const std::string name = "\nats_ibat_pending_requests{host=\"node1\"} ";
    return std::stoi(text.substr(text.find(name) + name.size()));
}

TEST(parallel_questions, wait_for_a_silent_sa_together)
{
    const service ats({"--hosts", "1"});
    raw_connection connection(ats.socket());
    connection.ask(R"({"request":"sa","action":"silence","state":"on"})");
    std::vector<std::string> arguments = resolve_command(ats.socket(), 32);
    arguments.insert(arguments.begin(), ATS_PROGRAM);
    // A slow machine may miss the moment. Then the command asks again.
    EXPECT_TRUE(eventually([&] {
        fabric_tools::process command({.arguments = arguments, .output = ats.folder / "answers"});
        while (!command.has_ended())
            if (pending_addresses(connection) >= 8) return true;
        return false;
    })) << "the command asks one address after the other";
}

// A service that accepts 12 open questions of a user. It keeps them open until it has refused all others. Then it
// answers them, the last one first, and all later questions at once.
class service_with_limit
{
  public:
    explicit service_with_limit(size_t refusals) : refusals_(refusals) {}

    reaction react(const json& request)
    {
        const std::lock_guard guard(mutex_);
        if (request["request"] != "resolve") return {}; // a client that waits for one answer gives up
        if (refusals_ == 0) return {answer(request)};
        if (open_.size() < 12) {
            open_.push_back(request);
            return {};
        }
        std::string lines = json({{"id", request["id"]}, {"error", "enough"}, {"exit_code", 3}}).dump() + "\n";
        if (--refusals_ == 0)
            for (auto kept = open_.rbegin(); kept != open_.rend(); ++kept) lines += answer(*kept);
        return {lines};
    }

  private:
    static std::string answer(const json& request)
    {
        json answer = json::parse(client_tests::usual(request).bytes);
        answer["address"] = answer["found"] = request["address"];
        answer["gid"] = "0xFE800000000000000200000000020001";
        return answer.dump() + "\n";
    }

    std::mutex mutex_;
    size_t refusals_;
    std::vector<json> open_;
};

TEST(parallel_questions, are_answered_in_their_order_and_asked_again_after_a_limit)
{
    const scratch_folder folder;
    service_with_limit limited(28);
    const auto react = client_tests::after_hello([&](const json& request) { return limited.react(request); });
    client_tests::fake_service service(react, 16, folder / "socket");
    service.serve();
    std::vector<std::string> command = resolve_command(folder / "socket", 40);
    command.insert(command.begin() + 1, "--json");
    const program_result result = run_ats(command);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const json answers = result.answer();
    ASSERT_EQ(answers.size(), 40u) << result.out;
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_EQ(answers[i]["asked"], "10.0.1." + std::to_string(i + 1));
        EXPECT_EQ(answers[i].value("found", ""), answers[i]["asked"]);
    }
}

// Runs `ats resolve --json`, with the file as stdin.
program_result resolve_lines(const std::string& socket, const std::string& arguments, const std::string& file)
{
    const scratch_folder folder;
    const std::string line = "exec " ATS_PROGRAM " resolve --json --socket " + socket + " " + arguments + " < " + file;
    fabric_tools::process shell({.arguments = {"sh", "-c", line}, .output = folder / "out", .errors = folder / "err"});
    const std::optional<int> exit_code = shell.wait_end(std::chrono::minutes(1));
    return {exit_code.value_or(-1), text_of_file(folder / "out"), text_of_file(folder / "err")};
}

TEST(parallel_questions, from_stdin_are_those_of_its_lines)
{
    const service ats({"--hosts", "2"});
    const std::string file = ats.folder / "lines";
    write_file(
        file, "# all hosts\n\n10.0.0.1\t# the first\r\n  node2 \n10.0.0.9#1\n10.0.0.3 10.0.0.4\n10.0.0.\xff\n10.0.0.2");
    const program_result result = resolve_lines(ats.socket(), "10.0.0.8 - 10.0.0.7", file);
    EXPECT_EQ(result.exit_code, 2) << result.err;
    std::vector<std::string> asked;
    for (const json& answer : result.answer()) asked.push_back(answer["asked"]);
    EXPECT_THAT(asked, testing::ElementsAre("10.0.0.8", "10.0.0.1", "node2", "10.0.0.9#1", "10.0.0.3 10.0.0.4",
                                            "10.0.0.\uFFFD", "10.0.0.2", "10.0.0.7"));
    EXPECT_THAT(result.out, testing::HasSubstr(R"("error": "'10.0.0.\\xff' holds bytes that are not text)"));

    write_file(file, "10.0.0.1\n" + std::string(70'000, '1'));
    write_file(ats.folder / "comments", "# none\n\n");
    for (const auto& [input, error] : {std::pair{file, "ats: line 2 of stdin has more than 65536 bytes"},
                                       {ats.folder / "comments", "ats: stdin has no ADDRESS: write one on each line"},
                                       {std::string("/"), "ats: stdin cannot be read: Is a directory"}}) {
        const program_result refused = resolve_lines(ats.socket(), "-", input);
        EXPECT_EQ(refused.exit_code, 2);
        EXPECT_THAT(refused.err, testing::StartsWith(error));
        EXPECT_EQ(refused.out, "");
    }
}

} // namespace

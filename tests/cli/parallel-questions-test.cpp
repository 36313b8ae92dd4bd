// `ats resolve` and its relatives ask many questions at the same time, and print the answers in the order of the
// arguments.
#include <atomic>
#include <mutex>

#include "tests/cli/program.h"
#include "tests/client/fake-service.h"
#include "tools/clients/raw-connection.h"

namespace
{

using client_tests::reaction;
using testing::HasSubstr;

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
        EXPECT_EQ(answers[i]["found"], answers[i]["asked"]);
    }
}

} // namespace

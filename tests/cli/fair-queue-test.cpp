// The queue and the worker threads of the server. No user may delay the requests of other users for long.
#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <string>

#include "cli/server/workers.h"

namespace
{

using testing::ElementsAre;

std::vector<std::string> pop_all(cli::fair_queue<std::string>& queue, size_t most = SIZE_MAX)
{
    std::vector<std::string> entries;
    while (!queue.is_empty() && entries.size() < most) entries.push_back(queue.pop());
    return entries;
}

// A user may make many requests or open many connections. This delays each request of another user by one request only.
TEST(fair_queue, users_take_turns_and_so_do_their_connections)
{
    cli::fair_queue<std::string> queue;
    for (int i = 0; i < 10'000; ++i) queue.push({1, 10}, "many");
    EXPECT_THAT(pop_all(queue, 2), ElementsAre("many", "many"));
    queue.push({2, 20}, "single");
    EXPECT_THAT(pop_all(queue, 2), ElementsAre("many", "single"));

    queue.push({1, 11}, "other connection");
    EXPECT_THAT(pop_all(queue, 2), ElementsAre("many", "other connection"));

    queue.push({2, 20}, "a");
    queue.push({2, 20}, "b");
    queue.push({2, 21}, "c");
    queue.remove({1, 10});
    EXPECT_THAT(pop_all(queue), ElementsAre("a", "c", "b"));

    queue.push({3, 30}, "gone");
    queue.remove({3, 30});
    queue.remove({3, 30});
    EXPECT_TRUE(queue.is_empty());
}

// While one user's jobs wait for a silent SA, another user's jobs run one after another.
TEST(workers, leave_half_of_their_threads_to_other_users)
{
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    std::atomic<int> waiting = 0, carried_out = 0;
    cli::workers workers(4);
    for (int i = 0; i < 8; ++i)
        workers.push({1, 10}, [&] {
            ++waiting;
            ended.wait();
        });
    std::function<void()> push_next = [&] {
        if (++carried_out < 8) workers.push({2, 20}, push_next);
    };
    workers.push({2, 20}, push_next);
    while ((carried_out < 8 || waiting < 2) && waiting <= 2) std::this_thread::yield();
    EXPECT_EQ(waiting, 2);
    end.set_value();
    while (waiting < 8 || carried_out < 8) std::this_thread::yield(); // the other six jobs of the first user still run
}

} // namespace

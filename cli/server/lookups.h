// Asks one host for addresses, GIDs and paths on behalf of clients. An answer from the host's caches comes at once.
// Other questions wait for the SA in turns, at most sixteen at a time, because the module has sixteen datagrams. Every
// door of the service asks here.
//
// A question leaves the queue when its turn comes or when its connection closes. The service does not know how long a
// client waits, so it also asks the questions of clients that no longer wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <variant>
#include <vector>

#include "cli/server/fair-queue.h"
#include "cli/service/statistics.h"
#include "host/world/path-resolution.h"

namespace cli
{

class lookups
{
  public:
    struct fresh_address { // the SA is asked even if the cache has an answer
        uint32_t ip;
    };
    struct path_to_address {
        uint32_t ip;
        uint32_t is_fresh; // 1: the SA is asked even if the caches have an answer; a 32-bit word, to avoid padding
    };
    struct path_to_gid {
        kq_gid_t gid;
        uint64_t is_fresh;
    };
    // An address in network order, a GID, or a path to one of them.
    using subject = std::variant<uint32_t, kq_gid_t, fresh_address, path_to_address, path_to_gid>;
    // The answer to a path question is a path_resolution, to all others a resolution.
    using answer = std::variant<world::resolution, world::path_resolution>;
    using completion = std::function<void(const answer&)>;

    // Counts the answers in `statistics`.
    lookups(kernel::machine& machine, lookup_statistics& statistics) : machine_(machine), statistics_(statistics) {}

    ~lookups() { stop(); }

    // Drops the queue, and waits for the questions at the SA. Asks nothing afterwards.
    void stop();

    // Answers from the cache before it returns, or calls `done` later in another thread. Only one thread may call this
    // and remove(). Throws exec::shortage, without a call of `done`, if no further thread can be created.
    void ask(const queue_place& place, const subject& subject, completion done);

    // Drops the queued questions of a connection without calling it back.
    void remove(const queue_place& place);

    // The time since which the thread has been passing on the same question; none: it waits for questions. Any thread.
    std::optional<std::chrono::steady_clock::time_point> question_start();

  private:
    struct entry {
        subject question;
        completion done;
    };
    struct subject_order {
        bool operator()(const subject& one, const subject& other) const;
    };

    bool answer_from_cache(const subject& subject, const completion& done);
    void serve_queue();
    void start(const subject& subject);
    void finish(const subject& subject, const answer& answer);

    void note(const subject& subject, const answer& answer);

    kernel::machine& machine_;
    lookup_statistics& statistics_;
    std::mutex mutex_; // guards the following members
    std::condition_variable changed_;
    fair_queue<entry> queue_;
    std::map<subject, std::vector<completion>, subject_order> sa_questions_; // by the question to the SA
    size_t unfinished_ = 0; // questions to the SA whose clients have not all been answered
    std::optional<std::chrono::steady_clock::time_point> question_start_;
    bool is_stopping_ = false;
    std::thread thread_; // passes the queued questions to the host, which may sleep
};

// The lookups of all hosts that were asked.
class host_lookups
{
  public:
    // The first call for a host creates its lookups. Only the loop's thread calls these two.
    lookups& at(kernel::machine& machine, lookup_statistics& statistics);
    void remove(const queue_place& place);

    // Stops all of them. The loop's thread must not call the others any more.
    void stop();

    // The names of the hosts whose thread has been passing on the same question since before `time`. Any thread.
    std::vector<std::string> stuck_since(std::chrono::steady_clock::time_point time);

  private:
    // Held by the loop's thread when it adds lookups, and by other threads when they read.
    std::mutex mutex_;
    std::map<kernel::machine*, lookups> lookups_;
};

} // namespace cli

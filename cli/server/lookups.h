// Asks one host for the addresses, GIDs and paths that clients want to know. What the host's caches know is answered at
// once; the rest waits for the SA, in turns: sixteen at a time, as many as the module has datagrams. Every door of the
// service asks here.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
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
    struct fresh_address { // the SA is asked whatever the cache knows
        uint32_t ip;
    };
    struct path_to_address {
        uint32_t ip;
        uint32_t is_fresh; // 1: the SA is asked whatever the caches know; a word, so that there is no padding
    };
    struct path_to_gid {
        kq_gid_t gid;
        uint64_t is_fresh;
    };
    // An address in network order, a GID, or a path to one of them.
    using subject = std::variant<uint32_t, kq_gid_t, fresh_address, path_to_address, path_to_gid>;
    // Paths are answered by a path_resolution, the others by a resolution.
    using answer = std::variant<world::resolution, world::path_resolution>;
    using completion = std::function<void(const answer&)>;

    // Counts the answers in `statistics`.
    lookups(kernel::machine& machine, lookup_statistics& statistics) : machine_(machine), statistics_(statistics) {}

    ~lookups() { stop(); }

    // Drops what is queued, and waits for what the SA is being asked. Nothing is asked afterwards.
    void stop();

    // Answers from the cache before it returns, or calls `done` later in another thread. One thread calls this and
    // remove(). Throws exec::shortage, without a call of `done`, if there can be no further thread.
    void ask(const queue_place& place, const subject& subject, completion done);

    // Drops what a connection has queued; it is not called back.
    void remove(const queue_place& place);

  private:
    struct entry {
        subject wanted;
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
    std::mutex mutex_; // guards the rest
    std::condition_variable changed_;
    fair_queue<entry> queue_;
    std::map<subject, std::vector<completion>, subject_order> asked_; // by what the SA is being asked for
    size_t unfinished_ = 0; // questions to the SA whose clients have not all been answered
    bool is_stopping_ = false;
    std::thread thread_; // takes what is queued to the host, where it may have to sleep
};

} // namespace cli

// The questions of clients to one host: for a GID, an address or a path. If the host's caches have the answer, the
// client gets it at once, unless it asks for a fresh one. Otherwise the question waits in a fair queue until the host
// asks the SA. At most sixteen questions are at the SA at a time, because the module has sixteen datagrams for each
// HCA. The client socket and the door for librdmacm programs (cli/acm/door.h) both use this class.
//
// A question leaves the queue when its turn comes, or when its connection closes. If the turn comes after the deadline
// of the question, the SA is not asked. A question without a deadline is asked even if its client has stopped waiting.
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
    // A question about an address or a GID.
    struct subject {
        world::path_destination target; // an address in network order, or a GID
        bool is_path = false;  // asks for the path to the target; otherwise for the GID of the address, or the reverse
        bool is_fresh = false; // the SA must answer, even if the caches have an answer; not for the address of a GID

        // An arbitrary order, so that questions can be the keys of a map.
        bool operator<(const subject& other) const;
    };

    // The answer to a question for a path is a path_resolution. The answer to all other questions is a resolution.
    using answer = std::variant<world::resolution, world::path_resolution>;
    using completion = std::function<void(const answer&)>;
    using time_point = std::chrono::steady_clock::time_point;

    // Counts the answers in `statistics`.
    lookups(kernel::machine& machine, lookup_statistics& statistics) : machine_(machine), statistics_(statistics) {}

    ~lookups() { stop(); }

    // Waits for the answers to the questions that are at the SA. Questions in the queue get no answer. After this call,
    // the host is not asked any more.
    void stop();

    // Asks a question and calls `callback` with the answer: during this call if the answer comes from a cache,
    // otherwise later in another thread. `place` is the user and the connection that ask. Only one thread may call
    // ask() and remove(). If the turn of the question comes after `deadline`, the answer is late_answer(). Throws
    // exec::shortage, without a call of `callback`, if no thread can be created.
    void ask(const queue_place& place, const subject& subject, completion callback,
             time_point deadline = time_point::max());

    // Returns the answer to a question that was not asked because its deadline had passed.
    static answer late_answer(bool is_path);

    // Removes the questions of a connection from the queue, without a call of their `callback`.
    void remove(const queue_place& place);

    // thread_ passes one question after the other to the host. Returns the time at which thread_ began with its present
    // question. Returns nothing if thread_ waits for questions. Any thread may call this.
    std::optional<time_point> question_start();

  private:
    struct entry {
        subject question;
        completion callback;
        time_point deadline;
    };

    bool answer_from_cache(const subject& subject, const completion& callback);
    void serve_queue();
    void start(const subject& subject);
    void finish(const subject& subject, const answer& answer);

    void note(const subject& subject, const answer& answer);

    kernel::machine& machine_;
    lookup_statistics& statistics_;
    std::mutex mutex_; // guards the following members, except thread_
    std::condition_variable change_;
    fair_queue<entry> queue_;
    // The questions at the SA, each with the `callback` functions of all clients that have asked it.
    std::map<subject, std::vector<completion>> sa_questions_;
    size_t question_count_ = 0; // questions at the SA, and answered ones whose `callback` calls have not all returned
    std::optional<time_point> question_start_;
    bool is_stopping_ = false;
    std::thread thread_; // passes questions from the queue to the host; this may sleep
};

// The lookups of all hosts of the service.
class host_lookups
{
  public:
    // at() returns the lookups of a host; the first call for a host creates them. remove() removes the questions of a
    // connection from the queues of all hosts. Only the thread of the event loop (the loop's thread) may make these two
    // calls.
    lookups& at(kernel::machine& machine, lookup_statistics& statistics);
    void remove(const queue_place& place);

    // Stops the lookups of all hosts. The loop's thread must not call at() any more.
    void stop();

    // Returns the names of the hosts whose lookups::question_start() is before `time`. Any thread.
    std::vector<std::string> stuck_since(lookups::time_point time);

  private:
    // The loop's thread holds the mutex when it adds an element to lookups_. It reads lookups_ without the mutex; other
    // threads read with the mutex. Only stop() needs no mutex, because at() is not called any more.
    std::mutex mutex_;
    std::map<kernel::machine*, lookups> lookups_;
};

} // namespace cli

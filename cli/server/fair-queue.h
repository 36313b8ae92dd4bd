// A queue that serves its users in turn, and each user's connections in turn, so that nobody waits behind what another
// has queued: a new entry is served after at most one entry of every other user. Not thread-safe.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <utility>

#include <sys/types.h>

namespace cli
{

struct queue_place {
    uid_t user;
    uint64_t connection;
};

// Keys in turn, each with something of its own that can be empty.
template <class key_t, class queue_t>
class rotation
{
  public:
    bool is_empty() const { return turns_.empty(); }

    // The queue of `key`, which gets the last turn if it is new.
    queue_t& of(key_t key)
    {
        const auto [entry, is_new] = queues_.try_emplace(key);
        if (is_new) turns_.push_back(key);
        return entry->second;
    }

    // Takes one entry out of the queue whose turn it is.
    auto pop()
    {
        const key_t key = turns_.front();
        turns_.pop_front();
        const auto queue = queues_.find(key);
        auto entry = queue->second.pop();
        if (queue->second.is_empty())
            queues_.erase(queue);
        else
            turns_.push_back(key);
        return entry;
    }

    void remove(key_t key)
    {
        if (queues_.erase(key) > 0) std::erase(turns_, key);
    }

    template <class change_t>
    void change(key_t key, change_t change_queue)
    {
        const auto queue = queues_.find(key);
        if (queue == queues_.end()) return;
        change_queue(queue->second);
        if (queue->second.is_empty()) remove(key);
    }

  private:
    std::deque<key_t> turns_;
    std::map<key_t, queue_t> queues_;
};

template <class entry_t>
class fair_queue
{
  public:
    bool is_empty() const { return users_.is_empty(); }

    void push(const queue_place& place, entry_t entry)
    {
        users_.of(place.user).of(place.connection).push(std::move(entry));
    }

    // The next entry. The queue is not empty.
    entry_t pop() { return users_.pop(); }

    // Drops what a connection has queued.
    void remove(const queue_place& place)
    {
        users_.change(place.user, [&](auto& connections) { connections.remove(place.connection); });
    }

  private:
    struct entries {
        bool is_empty() const { return queue.empty(); }
        void push(entry_t entry) { queue.push_back(std::move(entry)); }
        entry_t pop()
        {
            entry_t entry = std::move(queue.front());
            queue.pop_front();
            return entry;
        }
        std::deque<entry_t> queue;
    };

    rotation<uid_t, rotation<uint64_t, entries>> users_;
};

} // namespace cli

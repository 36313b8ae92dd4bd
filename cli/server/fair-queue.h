// A queue that serves its users in turn, and each user's connections in turn, so that nobody waits behind what another
// has queued: a new entry is served after at most one entry of every other user. Not thread-safe.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
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

    // The key whose turn it is among those that may have one. Nothing: none of them has an entry.
    template <class test_t>
    std::optional<key_t> first(const test_t& may_have_turn) const
    {
        const auto turn = std::ranges::find_if(turns_, may_have_turn);
        return turn == turns_.end() ? std::nullopt : std::optional(*turn);
    }

    // Takes one entry out of the queue whose turn it is.
    auto pop() { return pop(turns_.front()); }

    // The same out of the queue of `key`, which has an entry.
    auto pop(key_t key)
    {
        turns_.erase(std::ranges::find(turns_, key));
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

    // The user whose turn it is among those that may have one. Nothing: none of them has an entry.
    template <class test_t>
    std::optional<uid_t> first(const test_t& may_have_turn) const
    {
        return users_.first(may_have_turn);
    }

    // The next entry of a user who has one.
    entry_t pop(uid_t user) { return users_.pop(user); }

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

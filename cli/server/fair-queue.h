// A queue that serves its users in turn, and each user's connections in turn. A new entry waits for at most one entry
// of every other user, so no user can block others with many entries. Not thread-safe.
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

// Keys that take turns. Each has a queue, which can be empty.
template <class key_t, class queue_t>
class rotation
{
  public:
    bool is_empty() const { return turns_.empty(); }

    // Returns the queue of `key`. A new key gets the last turn.
    queue_t& queue_of(key_t key)
    {
        const auto [entry, is_new] = queues_.try_emplace(key);
        if (is_new) turns_.push_back(key);
        return entry->second;
    }

    // Returns the next key in turn that passes the test, or nothing if none has an entry and passes.
    template <class test_t>
    std::optional<key_t> first(const test_t& may_have_turn) const
    {
        const auto turn = std::ranges::find_if(turns_, may_have_turn);
        return turn == turns_.end() ? std::nullopt : std::optional(*turn);
    }

    // Removes and returns one entry of the key in turn.
    auto pop() { return pop(turns_.front()); }

    // Removes and returns one entry of `key`, which must have one.
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
        users_.queue_of(place.user).queue_of(place.connection).push(std::move(entry));
    }

    // Removes and returns the next entry. The queue must not be empty.
    entry_t pop() { return users_.pop(); }

    // Returns the next user in turn that passes the test, or nothing if none has an entry and passes.
    template <class test_t>
    std::optional<uid_t> first(const test_t& may_have_turn) const
    {
        return users_.first(may_have_turn);
    }

    // Removes and returns the next entry of a user, who must have one.
    entry_t pop(uid_t user) { return users_.pop(user); }

    // Drops the entries of a connection.
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

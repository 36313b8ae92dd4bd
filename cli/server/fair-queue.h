// A queue in which the users take turns, and the connections of each user take turns, too. If no user is skipped, the
// first entry of a user waits for at most one entry of each other user. Therefore no user can block others with many
// entries. The caller protects the queue with a lock.
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

// The user and the connection that have added an entry.
struct queue_place {
    uid_t user;
    uint64_t connection; // the number of the connection
};

// Keys that take turns. A key has a queue, and loses its turn when the queue is empty. `queue_t` must have pop() and
// is_empty().
template <class key_t, class queue_t>
class rotation
{
  public:
    bool is_empty() const { return turns_.empty(); }

    // Returns the queue of `key`, to which the caller adds an entry. A new key gets the last turn.
    queue_t& queue_of(key_t key)
    {
        const auto [entry, is_new] = queues_.try_emplace(key);
        if (is_new) turns_.push_back(key);
        return entry->second;
    }

    // Returns the first key, in the order of the turns, for which `may_have_turn` returns true. Returns nothing if
    // there is no such key.
    template <class test_t>
    std::optional<key_t> first(const test_t& may_have_turn) const
    {
        const auto turn = std::ranges::find_if(turns_, may_have_turn);
        return turn == turns_.end() ? std::nullopt : std::optional(*turn);
    }

    // Removes and returns one entry of the key that has the first turn. The key then gets the last turn. There must be
    // an entry.
    auto pop() { return pop(turns_.front()); }

    // Removes and returns one entry of `key`, which must have an entry. The key then gets the last turn.
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

    // Removes `key` and its entries, if there are any.
    void remove(key_t key)
    {
        if (queues_.erase(key) > 0) std::erase(turns_, key);
    }

    // Calls `change_queue` with the queue of `key`, if there is one. `change_queue` may remove entries.
    template <class change_t>
    void change(key_t key, change_t change_queue)
    {
        const auto queue = queues_.find(key);
        if (queue == queues_.end()) return;
        change_queue(queue->second);
        if (queue->second.is_empty()) remove(key);
    }

  private:
    std::deque<key_t> turns_; // the keys of queues_, in the order of their turns
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

    // Returns the first user with an entry, in the order of the turns, for whom `may_have_turn` returns true. Returns
    // nothing if there is no such user.
    template <class test_t>
    std::optional<uid_t> first(const test_t& may_have_turn) const
    {
        return users_.first(may_have_turn);
    }

    // Removes and returns the next entry of `user`, who must have an entry.
    entry_t pop(uid_t user) { return users_.pop(user); }

    // Removes the entries of a connection.
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

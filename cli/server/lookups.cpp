#include "cli/server/lookups.h"

#include <tuple>

#include "host/exec/shortage.h"

namespace cli
{

namespace
{

constexpr size_t most_questions = 16; // at the SA at a time: the module has this number of datagrams for each HCA

} // namespace

bool lookups::subject::operator<(const subject& other) const
{
    const auto key_of = [](const subject& subject) {
        const uint32_t* ip = std::get_if<uint32_t>(&subject.target);
        const kq_gid_t gid = ip ? kq_gid_t{*ip, 0} : std::get<kq_gid_t>(subject.target);
        return std::tuple(subject.is_path, subject.is_fresh, subject.target.index(), gid.subnet, gid.eui64);
    };
    return key_of(*this) < key_of(other);
}

void lookups::stop()
{
    {
        std::unique_lock lock(mutex_);
        is_stopping_ = true;
        change_.notify_all();
        change_.wait(lock, [&] { return question_count_ == 0; });
    }
    if (thread_.joinable()) thread_.join();
}

// Calls `callback` and returns true if the caches have the answer and the question does not ask for a fresh one.
bool lookups::answer_from_cache(const subject& subject, const completion& callback)
{
    const auto answer_with = [&](const auto& answer) {
        if (answer) {
            note(subject, *answer);
            callback(*answer);
        }
        return answer.has_value();
    };
    if (subject.is_fresh) return false;
    if (subject.is_path) return answer_with(world::path_from_cache(machine_, subject.target));
    const auto search = [&](const auto& target) { return answer_with(world::answer_from_cache(machine_, target)); };
    return std::visit(search, subject.target);
}

// Counts an answer in the statistics.
void lookups::note(const subject& subject, const answer& answer)
{
    if (const auto* path = std::get_if<world::path_resolution>(&answer)) return statistics_.note(*path);
    const bool is_by_gid = std::holds_alternative<kq_gid_t>(subject.target);
    const lookup_kind kind = is_by_gid ? lookup_kind::gid : lookup_kind::address;
    statistics_.note(kind, std::get<world::resolution>(answer));
}

lookups::answer lookups::late_answer(bool is_path)
{
    const auto complete = [](auto resolution, auto status) {
        resolution.status = status;
        resolution.reason = "the time of the question (within_ms) was over before its turn came";
        return resolution;
    };
    if (is_path) return complete(world::path_resolution{}, world::path_status::timed_out);
    return complete(world::resolution{}, ibat_stat_timeout);
}

void lookups::ask(const queue_place& place, const subject& subject, completion callback, time_point deadline)
{
    if (answer_from_cache(subject, callback)) return;
    const std::lock_guard lock(mutex_);
    if (!thread_.joinable()) thread_ = exec::new_thread([this] { serve_queue(); });
    queue_.push(place, {subject, std::move(callback), deadline});
    change_.notify_all();
}

void lookups::remove(const queue_place& place)
{
    const std::lock_guard lock(mutex_);
    queue_.remove(place);
}

std::optional<lookups::time_point> lookups::question_start()
{
    const std::lock_guard lock(mutex_);
    return question_start_;
}

void lookups::serve_queue()
{
    std::unique_lock lock(mutex_);
    while (true) {
        change_.wait(lock,
                     [&] { return is_stopping_ || (!queue_.is_empty() && sa_questions_.size() < most_questions); });
        if (is_stopping_) return;
        entry next = queue_.pop();
        if (std::chrono::steady_clock::now() > next.deadline) {
            lock.unlock();
            const answer answer = late_answer(next.question.is_path);
            note(next.question, answer);
            next.callback(answer);
            lock.lock();
            continue;
        }
        const auto [position, is_new] = sa_questions_.try_emplace(next.question);
        position->second.push_back(std::move(next.callback));
        if (!is_new) continue; // the same question is at the SA already; its answer is for this client, too
        ++question_count_;
        question_start_ = std::chrono::steady_clock::now();
        lock.unlock();
        start(next.question);
        lock.lock();
        question_start_.reset();
    }
}

// Passes a question to the host. finish() gets the answer, during this call or later in another thread. May sleep.
void lookups::start(const subject& subject)
{
    const auto callback = [this, subject](const auto& answer) { finish(subject, answer); };
    const auto mode = subject.is_fresh ? world::lookup_mode::sa_only : world::lookup_mode::usual;
    if (subject.is_path) return world::start_path_resolution(machine_, subject.target, mode, callback);
    if (const kq_gid_t* gid = std::get_if<kq_gid_t>(&subject.target))
        return world::start_resolution(machine_, *gid, callback);
    const uint32_t ip = std::get<uint32_t>(subject.target);
    if (subject.is_fresh) return world::start_fresh_resolution(machine_, ip, callback);
    world::start_resolution(machine_, ip, callback);
}

// Calls `callback` of all clients that have asked this question.
void lookups::finish(const subject& subject, const answer& answer)
{
    std::unique_lock lock(mutex_);
    const auto position = sa_questions_.find(subject);
    const std::vector<completion> askers = std::move(position->second);
    sa_questions_.erase(position);
    if (!queue_.is_empty()) change_.notify_all(); // a datagram is free for the next question
    lock.unlock();
    for (const completion& callback : askers) {
        note(subject, answer);
        callback(answer);
    }
    lock.lock();
    // Notify while holding the lock: stop() may be waiting, and after stop() the destructor destroys change_.
    if (--question_count_ == 0 && is_stopping_) change_.notify_all();
}

lookups& host_lookups::at(kernel::machine& machine, lookup_statistics& statistics)
{
    if (const auto entry = lookups_.find(&machine); entry != lookups_.end()) return entry->second;
    const std::lock_guard lock(mutex_);
    return lookups_.try_emplace(&machine, machine, statistics).first->second;
}

void host_lookups::remove(const queue_place& place)
{
    for (auto& [machine, lookups] : lookups_) lookups.remove(place);
}

void host_lookups::stop()
{
    for (auto& [machine, lookups] : lookups_) lookups.stop();
}

std::vector<std::string> host_lookups::stuck_since(lookups::time_point time)
{
    std::vector<std::string> names;
    const std::lock_guard lock(mutex_);
    for (auto& [machine, lookups] : lookups_)
        if (const auto start = lookups.question_start(); start && *start < time) names.push_back(machine->name());
    return names;
}

} // namespace cli

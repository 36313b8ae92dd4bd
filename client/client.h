// The client behind the C interface. client/ats/client.h describes each call.
//
// Any thread may call. `mutex_` guards all members. No thread holds it while it waits. One thread at a time receives
// (is_receiving_). It waits for input without the mutex, stores all arrived answers, and wakes the other threads
// (news_). A thread that still needs an answer then receives in its turn.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "client/outstanding.h"
#include "client/protocol.h"
#include "client/wake-up.h"

namespace client
{

class client
{
  public:
    explicit client(std::string path) : path_(std::move(path)) {}

    // Fails with ATS_NO_MEMORY if no descriptor is left.
    ats_status_t open() { return wake_up_.open() ? ATS_OK : ATS_NO_MEMORY; }

    // `body` is the question without its id; see client/protocol.h.
    ats_answer_t ask(const ats_options_t& options, const std::string& body);
    ats_status_t submit(const ats_options_t& options, uint64_t tag, const std::string& body);

    int descriptor() const { return wake_up_.fd(); }
    size_t collect(ats_answer_t* answers, size_t capacity);
    size_t wait(ats_answer_t* answers, size_t capacity, clock::time_point deadline);

    // Sends a request and returns the first line of its answer. Threads take turns.
    ats_status_t request(const std::string& body, clock::time_point deadline, std::string& line);

    // The next two calls do the same in steps. Only one thread at a time may use them.
    ats_status_t begin_request(const std::string& body, clock::time_point deadline);
    ats_status_t next_request_line(clock::time_point deadline, std::string& line);

  private:
    using lock = std::unique_lock<std::mutex>;

    uint64_t new_id() { return ++last_id_; }
    ats_status_t send(lock& guard, uint64_t id, question question, clock::time_point deadline);
    void greet();
    ats_status_t connect(lock& guard, clock::time_point deadline);
    ats_status_t drain_output(lock& guard, clock::time_point deadline);
    template <class condition_t>
    bool wait_until(lock& guard, clock::time_point deadline, condition_t is_reached);
    void receive(lock& guard, clock::time_point deadline);
    void take_input(connection::outcome outcome);
    void take_input_without_waiting();
    void take_hello(std::string_view line);
    void take_line(std::string_view line);
    void take_request_line(std::string_view line);
    void lose_protocol(const std::string& reason);
    void close_connection();
    void broken();
    void end_overdue();
    void end_all(ats_status_t status, const std::string& reason);
    void end(uint64_t id, const ats_answer_t& answer);
    size_t hand_out(ats_answer_t* answers, size_t capacity);
    void end_turn();
    void watch();

    const std::string path_;
    std::mutex mutex_;
    std::condition_variable news_;
    bool is_receiving_ = false;
    connection connection_;
    bool is_greeted_ = false; // the service has answered the hello
    uint64_t last_id_ = 0;
    outstanding outstanding_;
    std::map<uint64_t, ats_answer_t> blocking_answers_; // for threads that wait in ask()
    std::deque<ats_answer_t> completions_;              // answers of submit() that collect() has not fetched yet
    size_t submissions_ = 0;                            // number of outstanding submissions

    bool is_in_request_ = false; // a thread is in request()
    uint64_t request_id_ = 0;    // of the request from ats_request(); 0 if there is none
    std::deque<std::string> request_lines_;
    ats_answer_t request_end_{};

    wake_up wake_up_;
};

} // namespace client

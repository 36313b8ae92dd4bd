// The client behind the C interface. client/ats/client.h describes each call.
//
// Any thread may make any call. `mutex_` guards all members. No thread holds the mutex while waiting. Only one thread
// at a time receives (is_receiving_). This thread waits for input without the mutex, stores all answers that have
// arrived, also those for other threads, and wakes the other threads (progress_). One of the woken threads that still
// have no answer receives next.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unistd.h>

#include "client/open-questions.h"
#include "client/protocol.h"
#include "client/wake-up.h"

namespace client
{

// A line of the answer to a request.
struct request_line {
    uint64_t id = 0; // of the request
    std::string text;
};

class client
{
  public:
    explicit client(std::string path) : path_(std::move(path)) {}

    // Makes the descriptor for the program. Returns ATS_NO_MEMORY if no descriptors are left.
    ats_status_t open() { return wake_up_.open() ? ATS_OK : ATS_NO_MEMORY; }

    // Returns true in a child of fork(). There, only close_in_child() is allowed: the child shares the socket with its
    // parent, and threads that exist only in the parent may hold the mutex.
    bool belongs_to_parent() const { return getpid() != process_; }

    // Closes the child's copies of the descriptors. Frees no memory: the destructor would wait for the parent's
    // threads.
    void close_in_child();

    // `body` is the question without its id, as lookup_body() in client/protocol.h makes it.
    ats_answer_t ask(const ats_options_t& options, const std::string& body);
    ats_status_t submit(const ats_options_t& options, uint64_t tag, const std::string& body);

    int descriptor() const { return wake_up_.fd(); }
    size_t collect(ats_answer_t* answers, size_t capacity);
    size_t wait(ats_answer_t* answers, size_t capacity, clock::time_point deadline);

    // Sends a request, waits for the first line of its answer, and stores it in `line`. If several threads call this,
    // one request is sent after the other.
    ats_status_t request(const std::string& body, clock::time_point deadline, std::string& line);

    // begin_request() ends all earlier requests and sends one. add_request() sends a further one and stores its id in
    // `id`. next_request_line() waits for the next line of the answers to these requests. If one of them ends with an
    // error, it returns the error after the lines that came before. Only one thread at a time may use these calls.
    ats_status_t begin_request(const std::string& body, clock::time_point deadline);
    ats_status_t add_request(const std::string& body, clock::time_point deadline, uint64_t& id);
    ats_status_t next_request_line(clock::time_point deadline, request_line& line);

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
    void forget_requests();
    void reject_service(const std::string& reason);
    void close_connection();
    void reconnect();
    void end_overdue();
    void end_all(ats_status_t status, const std::string& reason);
    void end(uint64_t id, const ats_answer_t& answer);
    size_t hand_out(ats_answer_t* answers, size_t capacity);
    void end_turn();
    void watch();

    const std::string path_;
    const pid_t process_ = getpid();
    std::mutex mutex_;
    std::condition_variable progress_; // signalled when a thread leaves receive(), or ends its turn in request()
    bool is_receiving_ = false;
    connection connection_;
    bool is_greeted_ = false; // true if the service has answered the hello of this connection
    uint64_t last_id_ = 0;
    open_questions open_questions_;
    std::map<uint64_t, ats_answer_t> blocking_answers_; // by id, for the threads that wait in ask()
    std::deque<ats_answer_t> completions_;              // answers to submitted questions, for collect() and wait()
    size_t submissions_ = 0;                            // number of submitted questions without an answer

    bool is_in_request_ = false;             // true while a thread has its turn in request()
    std::set<uint64_t> request_ids_;         // ids of the requests that have not ended
    std::deque<request_line> request_lines_; // lines of their answers that the program has not got yet
    ats_answer_t request_error_{};           // the first error that has ended one of them; ATS_OK: no error

    wake_up wake_up_;
};

} // namespace client

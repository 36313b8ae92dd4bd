// One connection of a client: lines in, lines out, within the limits. Lives in the event loop's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "cli/service/access.h"
#include "cli/service/limits.h"

#include "cli/server/libuv.h"

namespace cli
{

class conversation
{
  public:
    // The calls that a conversation makes to its owner.
    struct owner {
        virtual ~owner() = default;
        virtual void take_line(conversation& source, std::string_view line) = 0;
        virtual void line_too_long(conversation& source) = 0;   // the conversation ends after the error was sent
        virtual void input_ended(conversation& source) = 0;     // the client sends nothing more
        virtual void became_writable(conversation& source) = 0; // the queued lines have been sent
        virtual void left_unread(conversation& source) = 0;     // cut off: it does not read its answers
        virtual void ended(conversation& source) = 0;           // its handle is closed; it may be destroyed
        virtual void has_unsent(conversation& source) = 0;      // call flush() at the end of this round
    };

    conversation(owner& owner, uv_loop_t* loop, uint64_t number, const service_limits& limits);
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;

    // Accepts the next connection of `listener`. Returns false on failure; ended() follows.
    bool accept(uv_stream_t* listener);

    uint64_t number() const { return number_; }
    const cli::peer& peer() const { return peer_; }

    // Queues a line for the client. A client that reads nothing is cut off at the limit.
    void send(std::string_view line);
    void flush();

    // Returns true if the client has many unread bytes. A long answer should then wait for became_writable().
    bool is_congested() const;

    // Stops reading lines until resume(), because a request without an id is being answered.
    void pause();
    void resume();

    // Ends the conversation after the queued lines have been sent, or at once.
    void hang_up();
    void cut_off();
    bool is_ending() const { return is_ending_; }

    // Ends the conversation if the client sends nothing more and has received all its answers.
    void end_if_done();

    bool is_greeted = false;
    bool is_admitted = false; // counted among its user's connections
    size_t open_requests = 0; // requests being answered

  private:
    void take_input(const char* bytes, size_t size);
    void take_end();
    void take_lines();
    void set_reading();
    void written(int status);

    owner& owner_;
    const uint64_t number_;
    const service_limits& limits_;
    uv_pipe_t pipe_;
    cli::peer peer_;
    std::string input_;
    size_t handled_bytes_ = 0;   // bytes of the input whose lines were handled
    std::string unsent_bytes_;   // not yet given to the socket
    std::string bytes_in_write_; // given to the socket
    uv_write_t write_;
    bool is_writing_ = false;
    bool is_reading_ = false;
    bool is_paused_ = false;
    bool is_taking_lines_ = false;
    bool has_input_ended_ = false;
    bool is_ending_ = false;
    bool is_closed_ = false;
};

} // namespace cli

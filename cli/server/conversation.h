// One connection of a client to the service's socket. Receives the lines of the client, passes them to the owner of the
// conversation, and sends lines to the client. Enforces the limits for the length of a line and for unread bytes. All
// calls are made in the event loop's thread.
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
        // The client has sent a line.
        virtual void take_line(conversation& source, std::string_view line) = 0;
        // The client has sent a line that is too long. The owner may send() an error; the conversation then ends.
        virtual void line_too_long(conversation& source) = 0;
        // The client has closed its sending side.
        virtual void input_ended(conversation& source) = 0;
        // All queued lines were given to the socket.
        virtual void became_writable(conversation& source) = 0;
        // The conversation ends, because the client does not read its answers.
        virtual void client_does_not_read(conversation& source) = 0;
        // The conversation has closed its libuv handle. The owner may destroy it.
        virtual void conversation_ended(conversation& source) = 0;
        // There are queued lines. The owner must call flush() at the end of this round of the loop.
        virtual void needs_flush(conversation& source) = 0;
    };

    // `number` is the owner's number for the conversation. `limits` must outlive the conversation.
    conversation(owner& owner, uv_loop_t* loop, uint64_t number, const service_limits& limits);
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;

    // Accepts the next client of `listener`. Returns false on failure; the conversation then calls
    // conversation_ended().
    bool accept(uv_stream_t* listener);

    uint64_t number() const { return number_; }
    const cli::peer& peer() const { return peer_; }

    // Queues a line for the client; adds the line end. If more bytes than the limit `unread_bytes` are already queued,
    // cuts the client off instead.
    void send(std::string_view line);

    // Gives the socket as many of the queued bytes as it accepts now. libuv sends the rest later.
    void flush();

    // Returns true if many bytes are queued, because the client reads slowly. The owner should then wait for
    // became_writable() before it sends more of a long answer.
    bool is_congested() const;

    // pause() stops the processing of lines; resume() continues it. The owner pauses the conversation while a request
    // without an id is being answered, except a followed log, whose answer may never end.
    void pause();
    void resume();

    // hang_up() ends the conversation after the queued lines have been sent. cut_off() ends it at once.
    void hang_up();
    void cut_off();
    bool is_ending() const { return is_ending_; }

    // Ends the conversation if the client has closed its sending side and all its requests were answered.
    void end_if_done();

    // The owner's notes.
    bool is_greeted = false;  // true if the client has sent a correct hello
    bool is_admitted = false; // true if the owner counts it as a connection of its user
    size_t open_requests = 0; // number of requests that are being answered
    size_t open_bytes = 0;    // estimated memory of these requests

  private:
    void take_input(const char* bytes, size_t size);
    void take_end();
    void take_lines();
    void set_reading();
    void finish_write(int status);

    owner& owner_;
    const uint64_t number_;
    const service_limits& limits_;
    uv_pipe_t pipe_;
    cli::peer peer_;
    std::string input_;
    size_t handled_bytes_ = 0;   // number of bytes at the start of `input_` whose lines were passed to the owner
    std::string unsent_bytes_;   // queued lines
    std::string bytes_in_write_; // bytes that libuv is sending; unchanged while is_writing_
    uv_write_t write_;
    bool is_writing_ = false;
    bool is_reading_ = false;
    bool is_paused_ = false;
    bool is_taking_lines_ = false; // take_lines() runs
    bool has_input_ended_ = false; // the client has closed its sending side
    bool is_ending_ = false;       // no more lines are passed to the owner
    bool is_closed_ = false;       // uv_close() was called
};

} // namespace cli

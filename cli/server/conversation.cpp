#include "cli/server/conversation.h"

#include <algorithm>
#include <array>

namespace cli
{

namespace
{

// If more than this number of bytes is queued for a client, or more than a quarter of the limit `unread_bytes`, the
// service reads no more requests of this client.
constexpr size_t congestion_bytes = size_t{256} << 10;

conversation& self_of(void* data)
{
    return *static_cast<conversation*>(data);
}

} // namespace

conversation::conversation(owner& owner, uv_loop_t* loop, uint64_t number, const service_limits& limits)
    : owner_(owner), number_(number), limits_(limits)
{
    uv_pipe_init(loop, &pipe_, 0);
    pipe_.data = this;
    write_.data = this;
}

bool conversation::accept(uv_stream_t* listener)
{
    uv_os_fd_t fd = -1;
    const bool is_accepted = uv_accept(listener, reinterpret_cast<uv_stream_t*>(&pipe_)) == 0 &&
                             uv_fileno(reinterpret_cast<uv_handle_t*>(&pipe_), &fd) == 0;
    const std::optional<cli::peer> peer = is_accepted ? peer_of(fd) : std::nullopt;
    if (!peer) {
        cut_off();
        return false;
    }
    peer_ = *peer;
    set_reading();
    return true;
}

// ---- input ----

// Starts or stops reading from the client. The conversation does not read while it is paused or congested, and not
// after the input has ended or while the conversation ends.
void conversation::set_reading()
{
    const bool should_read = !is_ending_ && !is_closed_ && !has_input_ended_ && !is_paused_ && !is_congested();
    if (should_read == is_reading_) return;
    is_reading_ = should_read;
    auto* stream = reinterpret_cast<uv_stream_t*>(&pipe_);
    if (!should_read) {
        uv_read_stop(stream);
        return;
    }
    // All conversations share one buffer, because they are all in the loop's thread.
    const auto give_buffer = [](uv_handle_t*, size_t, uv_buf_t* buffer) {
        static std::array<char, size_t{1} << 16> shared;
        *buffer = uv_buf_init(shared.data(), static_cast<unsigned>(shared.size()));
    };
    uv_read_start(stream, give_buffer, [](uv_stream_t* source, ssize_t size, const uv_buf_t* buffer) {
        conversation& self = self_of(source->data);
        if (size == UV_EOF)
            self.take_end();
        else if (size < 0)
            self.cut_off();
        else
            self.take_input(buffer->base, static_cast<size_t>(size));
    });
}

void conversation::take_input(const char* bytes, size_t size)
{
    input_.append(bytes, size);
    take_lines();
}

// The client has closed its sending side. It may still read its answers, so the conversation goes on until they are
// sent.
void conversation::take_end()
{
    has_input_ended_ = true;
    set_reading();
    owner_.input_ended(*this);
    end_if_done();
}

void conversation::end_if_done()
{
    if (has_input_ended_ && open_requests == 0 && !is_paused_ && input_.find('\n') == std::string::npos) hang_up();
}

// Passes the whole lines of the input to the owner, until the conversation is paused or congested, or ends.
void conversation::take_lines()
{
    if (is_taking_lines_) return; // the owner has called resume() from take_line(); the loop below continues
    is_taking_lines_ = true;
    size_t end = 0;
    while (!is_ending_ && !is_paused_ && !is_congested() &&
           (end = input_.find('\n', handled_bytes_)) != std::string::npos) {
        const std::string_view line = std::string_view(input_).substr(handled_bytes_, end - handled_bytes_);
        handled_bytes_ = end + 1;
        if (line.size() > limits_.line_bytes) {
            owner_.line_too_long(*this);
            hang_up();
            break;
        }
        owner_.take_line(*this, line);
    }
    is_taking_lines_ = false;
    input_.erase(0, handled_bytes_);
    handled_bytes_ = 0;
    const bool has_endless_line = input_.size() > limits_.line_bytes && input_.find('\n') == std::string::npos;
    if (has_endless_line && !is_ending_) {
        input_.clear();
        owner_.line_too_long(*this);
        hang_up();
    }
    set_reading();
    end_if_done();
}

void conversation::pause()
{
    is_paused_ = true;
    set_reading();
}

void conversation::resume()
{
    is_paused_ = false;
    take_lines();
}

// ---- output ----

bool conversation::is_congested() const
{
    return unsent_bytes_.size() + bytes_in_write_.size() > std::min(congestion_bytes, limits_.unread_bytes / 4);
}

void conversation::send(std::string_view line)
{
    if (is_closed_) return;
    // The length of this line does not count. One answer may therefore be longer than the limit.
    if (unsent_bytes_.size() + bytes_in_write_.size() > limits_.unread_bytes) {
        owner_.client_does_not_read(*this);
        return cut_off();
    }
    if (unsent_bytes_.empty()) owner_.needs_flush(*this);
    unsent_bytes_ += line;
    unsent_bytes_ += '\n';
}

void conversation::flush()
{
    if (is_closed_ || is_writing_ || unsent_bytes_.empty()) return;
    auto* stream = reinterpret_cast<uv_stream_t*>(&pipe_);
    uv_buf_t buffer = uv_buf_init(unsent_bytes_.data(), static_cast<unsigned>(unsent_bytes_.size()));
    const int count = uv_try_write(stream, &buffer, 1);
    if (count < 0 && count != UV_EAGAIN) return cut_off();
    unsent_bytes_.erase(0, static_cast<size_t>(std::max(count, 0)));
    if (unsent_bytes_.empty()) return finish_write(0);
    bytes_in_write_.swap(unsent_bytes_);
    buffer = uv_buf_init(bytes_in_write_.data(), static_cast<unsigned>(bytes_in_write_.size()));
    is_writing_ = true;
    uv_write(&write_, stream, &buffer, 1,
             [](uv_write_t* request, int status) { self_of(request->data).finish_write(status); });
}

// All bytes of a write were given to the socket, or the write has failed with `status`. Continues with the next queued
// lines.
void conversation::finish_write(int status)
{
    is_writing_ = false;
    bytes_in_write_.clear();
    if (is_closed_) return;
    if (status < 0) return cut_off();
    if (!unsent_bytes_.empty()) return flush();
    if (is_ending_) return cut_off();
    owner_.became_writable(*this);
    take_lines();
}

// ---- the end ----

void conversation::hang_up()
{
    is_ending_ = true;
    if (unsent_bytes_.empty() && !is_writing_) cut_off();
}

void conversation::cut_off()
{
    is_ending_ = true;
    if (is_closed_) return;
    is_closed_ = true;
    uv_close(reinterpret_cast<uv_handle_t*>(&pipe_), [](uv_handle_t* handle) {
        conversation& self = self_of(handle->data);
        self.owner_.conversation_ended(self);
    });
}

} // namespace cli

// How a port is followed: when to ask it for its attributes, what its answers (and its silence) mean, and what of a
// change the listener must hear. Nothing here touches a device.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/self-query.h"

namespace umad
{

// The events that lead from one state of a port to the next, in their order.
std::vector<fabric::port_change> changes_between(const fabric::port_attributes& before,
                                                 const fabric::port_attributes& now);

// What an administrator calls a port's state. `lost`: the device is gone; `silent`: the port does not tell.
enum class port_condition { unknown, lost, silent, link_down, no_sm, active };
port_condition condition_of(const fabric::port_attributes& attributes);

// One line about it, without the port's name.
std::string text_of(port_condition condition, const fabric::port_attributes& attributes);

class port_watch
{
  public:
    // Times are in ticks throughout.
    port_watch(int port, uint64_t interval) : interval_(interval), query_(port) {}

    // A question to send now, if it is time for one.
    std::optional<fabric::mad_bytes> question_due(uint64_t now);

    // When it is time for the next.
    uint64_t next_due() const { return due_; }

    // The port answered. The attributes, when that was the last answer it took.
    std::optional<fabric::port_attributes> answered(const fabric::mad_bytes& answer, uint64_t now);

    // It has not answered for so long that its state is not known any more. The first questions get less patience.
    bool is_silent() const { return tries_ > (has_ever_answered_ ? most_tries : most_first_tries); }
    bool has_ever_answered() const { return has_ever_answered_; }

    // Asks from the beginning in one interval.
    void postpone(uint64_t now);

  private:
    // Local answers take microseconds. A question that got none is asked again soon, though not at once.
    static constexpr uint64_t answer_time = 250;
    static constexpr int most_tries = 20;
    static constexpr int most_first_tries = 3;

    const uint64_t interval_;
    self_query query_;
    uint64_t due_ = 0;
    bool is_asking_ = false;
    bool has_ever_answered_ = false;
    int tries_ = 0; // of the same question
};

} // namespace umad

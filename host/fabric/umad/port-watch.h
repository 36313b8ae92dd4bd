// Watches a port: decides when to ask for its attributes, interprets its answers and its silence, and turns changes
// into events. Nothing here touches a device.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/self-query.h"

namespace umad
{

// The events that tell a listener about this change of a port, in their order.
std::vector<fabric::port_change> changes_between(const fabric::port_attributes& previous,
                                                 const fabric::port_attributes& current);

// Adds the events for a host that must register again, even if nothing has changed. A port that is not active registers
// when it becomes active.
std::vector<fabric::port_change> with_registration(const std::vector<fabric::port_change>& changes,
                                                   const fabric::port_attributes& current);

// A port's state for an administrator. `lost` means that the device is gone. `silent` means that the port does not
// answer questions about itself.
enum class port_condition { unknown, lost, silent, link_down, no_sm, active };
port_condition condition_of(const fabric::port_attributes& attributes);

// One line about the condition, without the port's name; "" for `unknown`.
std::string text_of(port_condition condition, const fabric::port_attributes& attributes);

class port_watch
{
  public:
    // All times are in ticks.
    port_watch(int port, uint64_t interval) : interval_(interval), query_(port) {}

    void set_interval(uint64_t interval) { interval_ = interval; }

    // Asks for all attributes without waiting for the interval, because the port has probably changed. With a brief
    // `first` look, the first question asks for PortInfo. If that has not changed, the attributes are complete after
    // this one answer. In any case a whole look follows.
    void hurry(uint64_t now, self_query::look first = self_query::look::whole);

    // Returns the question to send now, or none before next_due().
    std::optional<fabric::mad_bytes> due_question(uint64_t now);

    // The time of the next question.
    uint64_t next_due() const { return due_; }

    // Processes an answer of the port. Returns the attributes after the answer to the last question.
    std::optional<fabric::port_attributes> accept(const fabric::mad_bytes& answer, uint64_t now);

    // Returns true if the port has not answered for so long that its state is unknown. The first questions get fewer
    // tries.
    bool is_silent() const { return tries_ > (has_ever_answered_ ? most_tries : most_first_tries); }
    bool has_ever_answered() const { return has_ever_answered_; }

    // Starts the next look after one interval. A silent port is then asked again, as often as before.
    void postpone(uint64_t now);

  private:
    // Local answers take microseconds. After this time, a question without an answer is repeated.
    static constexpr uint64_t answer_time = 250;
    static constexpr int most_tries = 20;
    static constexpr int most_first_tries = 3;

    // One of this many looks is whole: P_Keys and GIDs can change without a change of PortInfo.
    static constexpr int whole_look_period = 10;

    uint64_t interval_;
    self_query query_;
    uint64_t due_ = 0;
    bool is_asking_ = false;
    bool has_ever_answered_ = false;
    int tries_ = 0;                 // tries of the current question
    int brief_looks_ = 0;           // brief looks left before the next whole one
    bool next_look_is_due_ = false; // look again without a pause
};

} // namespace umad

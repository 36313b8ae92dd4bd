// Watches a port. Decides when to ask the port for its attributes, interprets its answers and its silence, and turns
// changes into events. A look is a series of questions that reads the attributes once (self_query::look). This file
// uses no device: the class `port` sends the questions and receives the answers.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/self-query.h"

namespace umad
{

// Returns the events that report a change of a port's attributes to the listener, in their order.
std::vector<fabric::port_change> changes_between(const fabric::port_attributes& previous,
                                                 const fabric::port_attributes& current);

// Returns the events for a host that must register again: for an active port, reregister instead of `changes`. Returns
// `changes` if they contain a link_up, or if the port is not active, because a host registers at every link-up anyway.
std::vector<fabric::port_change> with_registration(const std::vector<fabric::port_change>& changes,
                                                   const fabric::port_attributes& current);

// A port's state for an administrator. `unknown`: the port has not reported anything yet. `lost`: the device is gone.
// `silent`: the port does not answer questions about itself. `no_sm`: no SM has activated the port.
enum class port_condition { unknown, lost, silent, link_down, no_sm, active };
port_condition condition_of(const fabric::port_attributes& attributes);

// One line for people about the condition, without the port's name; "" for `unknown`.
std::string text_of(port_condition condition, const fabric::port_attributes& attributes);

class port_watch
{
  public:
    // `interval` is the time from the end of one look to the start of the next. All times are in ticks.
    port_watch(int port, uint64_t interval) : interval_(interval), query_(port) {}

    void set_interval(uint64_t interval) { interval_ = interval; }

    // Starts a new look without waiting for the interval. Call it when the port has probably changed. `first` is the
    // kind of this look. A whole look reads all attributes. A brief look asks for PortInfo only; if PortInfo has not
    // changed, the attributes are known after one answer. A whole look follows a brief `first` look at once.
    void hurry(uint64_t now, self_query::look first = self_query::look::whole);

    // Returns the question that must be sent now, or none before next_due().
    std::optional<fabric::mad_bytes> due_question(uint64_t now);

    // The time of the next question.
    uint64_t next_due() const { return due_; }

    // Processes an answer of the port. Returns the attributes if this was the last answer of a look, otherwise none.
    std::optional<fabric::port_attributes> accept(const fabric::mad_bytes& answer, uint64_t now);

    // Returns true if the present question has no answer after its last try. The port's state is then unknown. Before
    // the port's first answer, a question gets fewer tries.
    bool is_silent() const { return tries_ > (has_ever_answered_ ? most_tries : most_first_tries); }
    bool has_ever_answered() const { return has_ever_answered_; }

    // Ends the present look. The next one starts after one interval. A question to a silent port then gets all its
    // tries again.
    void postpone(uint64_t now);

  private:
    // After this time, a question without an answer is repeated. A port answers within microseconds.
    static constexpr uint64_t answer_time = 250;
    static constexpr int most_tries = 20;
    static constexpr int most_first_tries = 3;

    // One of this many looks is whole, because P_Keys and GIDs can change without a change of PortInfo. The other looks
    // are brief.
    static constexpr int whole_look_period = 10;

    uint64_t interval_;
    self_query query_;
    uint64_t due_ = 0;
    bool is_asking_ = false;
    bool has_ever_answered_ = false;
    int tries_ = 0;                 // tries of the current question
    int brief_looks_ = 0;           // brief looks left before the next whole one
    bool next_look_is_due_ = false; // the next look starts right after this one
};

} // namespace umad

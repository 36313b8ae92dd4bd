// A model of one HCA in the service: the states of its two ports, which of them is active, and what a registration
// puts on the wire. It is told what the service logs and what it sends, in the order in which that happens, says what
// it would have done differently, and is asked whether a report of the control file shows its state.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "console/control-report.h"
#include "host/exec/task.h"
#include "host/fabric/fabric.h"

namespace campaign
{

enum class port_state { down, up, active };

class port_model
{
  public:
    port_model() = default;
    port_model(std::string hca, int ports, const std::array<fabric::gid_bytes, 2>& gids)
        : event_task_(hca + " events"), ports_(ports), gids_(gids)
    {
    }

    // Each returns what is wrong, or nothing. `by` is the task that logs or sends; no link has changed lately when
    // `link_is_sure`.
    std::string logged(const exec::task& by, const std::string& line, bool link_is_sure);
    std::string sent(const exec::task& by, uint8_t method, const fabric::gid_bytes& gid);
    std::string compare(const console::json& shown_hca) const;

  private:
    std::string event(const std::string& line);
    std::string end_registration(const std::string& result);
    int lowest_up() const;

    std::string event_task_;
    int ports_ = 0;
    std::array<fabric::gid_bytes, 2> gids_{};

    bool is_on_ = false;       // the module is loaded and logs
    bool is_stopping_ = false; // and names GIDs of its own in its deletes
    std::array<port_state, 2> states_{};
    std::array<fabric::gid_bytes, 2> known_gids_{}; // as the service has read them
    int active_ = 0;
    bool link_is_sure_ = false;
    fabric::gid_bytes registered_{}; // what the next delete names

    // Of the event that is being handled.
    int event_port_ = 0;
    bool must_choose_ = false;
    bool refresh_failed_ = false;
    bool registering_ = false;
    int deletes_ = 0;
    int sets_ = 0;
};

} // namespace campaign

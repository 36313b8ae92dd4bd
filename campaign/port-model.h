// A model of one HCA in the service (the module ats): the states of its ports, the active port, and the requests of a
// registration. The model reads the log lines and the requests of the service in order. It reports lines and requests
// that break the rules.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "campaign/mismatch.h"
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

    // Each function returns the fault that it found. If it found none, the returned text is empty. `task` logged the
    // line or sent the request. `is_link_stable` means that no link of the host has changed recently.
    std::string check_line(const exec::task& task, const std::string& line, bool is_link_stable);
    found_fault check_request(const exec::task& task, uint8_t method, const fabric::gid_bytes& gid);

    // Compares a report with the model. `reported_hca` is one of the "hcas" of console::parse_control_report(). Returns
    // the fault, or an empty text.
    std::string compare(const console::json& reported_hca) const;

  private:
    std::string check_event_line(const std::string& line);
    void link_up(int port);
    void link_down(int port);
    std::string make_active(int port);
    std::string end_registration(const std::string& result);
    int lowest_port_up() const; // returns 0 if no port is up

    std::string event_task_;
    int ports_ = 0;
    std::array<fabric::gid_bytes, 2> gids_{};

    bool is_on_ = false;       // the module is loaded and logs
    bool is_stopping_ = false; // the module stops this HCA; its Deletes may now name any GID
    std::array<port_state, 2> states_{};
    std::array<fabric::gid_bytes, 2> known_gids_{}; // for each port, the GID that the service has read last
    int active_port_ = 0;                           // 0 if none
    bool is_link_stable_ = false;
    fabric::gid_bytes registered_gid_{}; // the next Delete must name this GID

    // The state while the service processes an event.
    int event_port_ = 0;
    bool must_choose_ = false;        // the service must make a port active before the event ends
    bool has_refresh_failed_ = false; // a query of the port has failed during the event
    bool is_registering_ = false;
    int deletes_ = 0; // number of Deletes in this registration
    int sets_ = 0;    // number of Sets in this registration
};

} // namespace campaign

#include "campaign/port-model.h"

#include <cstdlib>
#include <string_view>

#include "host/fabric/embedded/subnet-views.h"
#include "sa-mads.h"

namespace campaign
{

namespace
{

constexpr int max_deletes = 3;                                       // in one registration
constexpr std::string_view set_result = "sending SA Set SR, ret = "; // the return value of the send follows

bool contains(const std::string& line, const char* text)
{
    return line.find(text) != std::string::npos;
}

// Returns the number after `text` in the line, or 0 if the line does not contain the text.
int number_after(const std::string& line, std::string_view text)
{
    const size_t position = line.find(text);
    return position == std::string::npos ? 0 : std::atoi(line.c_str() + position + text.size());
}

} // namespace

std::string port_model::check_line(const exec::task& task, const std::string& line, bool is_link_stable)
{
    is_link_stable_ = is_link_stable;
    if (contains(line, "LOGGER: Added key")) {
        *this = port_model(event_task_.substr(0, event_task_.find(' ')), ports_, gids_);
        is_on_ = true;
    }
    if (contains(line, "ATS - module stopped")) is_on_ = false;
    if (contains(line, "stop hca ") || contains(line, "ats_ibat_init failed")) is_stopping_ = true;
    return is_on_ && task.name == event_task_ ? check_event_line(line) : "";
}

std::string port_model::check_event_line(const std::string& line)
{
    const auto port_after = [&](std::string_view text) {
        const int port = number_after(line, text);
        return port <= ports_ ? port : 0;
    };
    if (contains(line, "Received ")) event_port_ = number_after(line, "<port:");
    if (const int port = port_after("Received link_up <port:"); port > 0) {
        link_up(port);
    } else if (const int port = port_after("Received link_down <port:"); port > 0) {
        link_down(port);
    } else if (contains(line, "() failed <")) {
        has_refresh_failed_ = true;
        // The service reads the P_Keys of a port last. If the read of the P_Keys fails, the service has already read
        // the GID.
        if (contains(line, "kq_get_port_partition_tbl") && event_port_ >= 1 && event_port_ <= ports_)
            known_gids_[event_port_ - 1] = gids_[event_port_ - 1];
    } else if (const int port = port_after(": port "); port > 0 && contains(line, " pkey 0x")) {
        known_gids_[port - 1] = gids_[port - 1];
    } else if (const int port = number_after(line, "Setting port ");
               port > 0 && contains(line, "to be the active port")) {
        return make_active(port);
    } else if (const size_t position = line.find(set_result); position != std::string::npos) {
        return end_registration(line.substr(position + set_result.size()));
    } else if (contains(line, "release the sem")) {
        if (must_choose_ && !has_refresh_failed_) return "no port became active, although one is up";
        must_choose_ = has_refresh_failed_ = false;
    }
    return "";
}

void port_model::link_up(int port)
{
    port_state& state = states_[port - 1];
    if (state == port_state::active) return;
    state = port_state::up;
    must_choose_ = active_port_ == 0;
}

void port_model::link_down(int port)
{
    port_state& state = states_[port - 1];
    const bool was_active = state == port_state::active;
    if (was_active) {
        registered_gid_ = known_gids_[port - 1];
        active_port_ = 0;
    }
    state = port_state::down;
    must_choose_ = was_active && lowest_port_up() > 0;
}

std::string port_model::make_active(int port)
{
    if (!must_choose_ || has_refresh_failed_ || active_port_ != 0 || port != lowest_port_up())
        return "port " + std::to_string(port) + " became active, against the rules";
    must_choose_ = false;
    is_registering_ = true;
    deletes_ = sets_ = 0;
    active_port_ = port;
    states_[port - 1] = port_state::active;
    return "";
}

std::string port_model::end_registration(const std::string& result)
{
    is_registering_ = false;
    const bool was_sent = result == "0";
    // wire_watch sees no request of a port whose link is down. It then does not call check_request(), so the model may
    // have missed the Set.
    const bool is_missing = was_sent && sets_ == 0 && is_link_stable_;
    if (sets_ > (was_sent ? 1 : 0) || is_missing)
        return "a registration sent " + std::to_string(sets_) + " Sets and reported " + result;
    if (deletes_ > max_deletes) return "a registration sent " + std::to_string(deletes_) + " Deletes";
    if (was_sent) registered_gid_ = known_gids_[active_port_ - 1];
    return "";
}

found_fault port_model::check_request(const exec::task& task, uint8_t method, const fabric::gid_bytes& gid)
{
    if (!is_on_) return {};
    const bool changes_record = task.name == "rename" || task.name == "readdress";
    if (task.name != event_task_) {
        if (method == MAD_METHOD_SET && active_port_ > 0 && changes_record)
            registered_gid_ = known_gids_[active_port_ - 1];
        return {};
    }
    const std::string text = embedded::text_of(gid);
    if (!is_registering_)
        return {"an event sent a request outside of a registration", {"no request", "a request with " + text}};
    if (method == MAD_METHOD_DELETE) {
        ++deletes_;
        if (sets_ > 0)
            return {"a registration sent a Delete after its Set", {"nothing after the Set", "a Delete of " + text}};
        if (gid != registered_gid_ && !is_stopping_)
            return {"a Delete names another GID than the last Set", {embedded::text_of(registered_gid_), text}};
    }
    if (method == MAD_METHOD_SET) {
        ++sets_;
        if (active_port_ == 0)
            return {"a Set carries the GID of another port", {"no Set without an active port", text}};
        if (gid != known_gids_[active_port_ - 1])
            return {"a Set carries the GID of another port", {embedded::text_of(known_gids_[active_port_ - 1]), text}};
    }
    return {};
}

std::string port_model::compare(const console::json& reported_hca) const
{
    static const char* const names[] = {"Down", "UP", "Active"};
    if (!is_on_) return "";
    for (size_t i = 0; i < static_cast<size_t>(ports_); ++i) {
        const auto& state = reported_hca["ports"][i]["state"];
        const char* const expected_state = names[static_cast<size_t>(states_[i])];
        if (state != expected_state)
            return "port " + std::to_string(i + 1) + " is reported " + state.get<std::string>() + ", expected " +
                   expected_state;
    }
    return "";
}

int port_model::lowest_port_up() const
{
    for (int i = 0; i < ports_; ++i)
        if (states_[i] == port_state::up) return i + 1;
    return 0;
}

} // namespace campaign

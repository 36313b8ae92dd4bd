#include "campaign/port-model.h"

#include "sa-mads.h"

namespace campaign
{

namespace
{

constexpr int most_deletes = 3;

bool says(const std::string& line, const char* what)
{
    return line.find(what) != std::string::npos;
}

// The number behind `what` in the line, or 0.
int number_behind(const std::string& line, const char* what)
{
    const size_t at = line.find(what);
    return at == std::string::npos ? 0 : std::atoi(line.c_str() + at + std::string(what).size());
}

} // namespace

std::string port_model::logged(const exec::task& by, const std::string& line, bool link_is_sure)
{
    link_is_sure_ = link_is_sure;
    if (says(line, "LOGGER: Added key")) {
        *this = port_model(event_task_.substr(0, event_task_.find(' ')), ports_, gids_);
        is_on_ = true;
    }
    if (says(line, "ATS - module stopped")) is_on_ = false;
    if (says(line, "stop hca ") || says(line, "ats_ibat_init failed")) is_stopping_ = true;
    if (!is_on_) return "";
    return by.name == event_task_ ? event(line) : "";
}

std::string port_model::event(const std::string& line)
{
    if (says(line, "Received ")) event_port_ = number_behind(line, "<port:");
    if (const int port = number_behind(line, "Received link_up <port:"); port >= 1 && port <= ports_) {
        port_state& state = states_[port - 1];
        if (state == port_state::active) return "";
        state = port_state::up;
        must_choose_ = active_ == 0;
    } else if (const int port = number_behind(line, "Received link_down <port:"); port >= 1 && port <= ports_) {
        port_state& state = states_[port - 1];
        if (state == port_state::active) {
            registered_ = known_gids_[port - 1];
            active_ = 0;
        }
        const bool was_active = state == port_state::active;
        state = port_state::down;
        must_choose_ = was_active && lowest_up() > 0;
    } else if (says(line, "() failed <")) {
        refresh_failed_ = true;
        // The P_Key is read last; what was read before it is kept.
        if (says(line, "kq_get_port_partition_tbl") && event_port_ >= 1 && event_port_ <= ports_)
            known_gids_[event_port_ - 1] = gids_[event_port_ - 1];
    } else if (const int port = number_behind(line, ": port "); port > 0 && says(line, " pkey 0x")) {
        known_gids_[port - 1] = gids_[port - 1];
    } else if (const int port = number_behind(line, "Setting port "); port > 0 && says(line, "to be the active port")) {
        if (!must_choose_ || refresh_failed_ || active_ != 0 || port != lowest_up())
            return "port " + std::to_string(port) + " became active, against the rules";
        must_choose_ = false;
        registering_ = true;
        deletes_ = sets_ = 0;
        active_ = port;
        states_[port - 1] = port_state::active;
    } else if (const size_t at = line.find("sending SA Set SR, ret = "); at != std::string::npos) {
        return end_registration(line.substr(at + 25));
    } else if (says(line, "release the sem")) {
        if (must_choose_ && !refresh_failed_) return "no port was made active, though one is up";
        must_choose_ = refresh_failed_ = false;
    }
    return "";
}

std::string port_model::end_registration(const std::string& result)
{
    registering_ = false;
    const bool was_sent = result == "0";
    // What goes out through a port without a link is not seen.
    if (sets_ > (was_sent ? 1 : 0) || (was_sent && sets_ == 0 && link_is_sure_))
        return "a registration sent " + std::to_string(sets_) + " sets, says " + result;
    if (deletes_ > most_deletes) return "a registration sent " + std::to_string(deletes_) + " deletes";
    if (was_sent) registered_ = known_gids_[active_ - 1];
    return "";
}

std::string port_model::sent(const exec::task& by, uint8_t method, const fabric::gid_bytes& gid)
{
    if (!is_on_) return "";
    if (by.name == event_task_) {
        if (!registering_) return "an event sent something outside of a registration";
        if (method == MAD_METHOD_DELETE) {
            ++deletes_;
            if (sets_ > 0) return "a delete was sent behind the set";
            if (gid != registered_ && !is_stopping_) return "a delete names another GID than the one registered last";
        }
        if (method == MAD_METHOD_SET) {
            ++sets_;
            if (active_ == 0 || gid != known_gids_[active_ - 1]) return "a set carries the GID of another port";
        }
    } else if (method == MAD_METHOD_SET && active_ > 0 && (by.name == "rename" || by.name == "readdress")) {
        registered_ = known_gids_[active_ - 1];
    }
    return "";
}

std::string port_model::compare(const console::json& shown_hca) const
{
    static const char* const names[] = {"Down", "UP", "Active"};
    if (!is_on_) return "";
    for (size_t i = 0; i < static_cast<size_t>(ports_); ++i)
        if (const auto& shown = shown_hca["ports"][i]["state"]; shown != names[static_cast<size_t>(states_[i])])
            return "port " + std::to_string(i + 1) + " is " + shown.get<std::string>() + ", against the model";
    return "";
}

int port_model::lowest_up() const
{
    for (int i = 0; i < ports_; ++i)
        if (states_[i] == port_state::up) return i + 1;
    return 0;
}

} // namespace campaign

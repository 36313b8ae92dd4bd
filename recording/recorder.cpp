#include "recording/recorder.h"

#include <cerrno>
#include <cstring>

#include "recording/mad-fields.h"

namespace recording
{

namespace
{

// In the order of recorder::values_of().
constexpr const char* switch_names[] = {
    "latency ticks",    "jitter ticks", "loss percent",      "duplicates percent", "reordering percent",
    "corrupt percent",  "drop next",    "drop next answers", "send queue full",    "refused sends percent",
    "SA service ticks", "SA silent",    "SA busy",           "SA status",          "SA status count"};

std::string port_name(const std::string& host, const std::string& hca, int port)
{
    return host + " " + hca + " " + std::to_string(port);
}

json name_of(const embedded::port_view* port)
{
    if (!port) return "sa";
    return port_name(port->host_name, port->hca_name, port->port);
}

const char* text_of(fabric::port_change change)
{
    static constexpr const char* texts[] = {"up", "down", "SM change", "reregister"};
    return texts[static_cast<size_t>(change)];
}

const char* text_of(fabric::link_state state)
{
    static constexpr const char* texts[] = {"down", "init", "armed", "active"};
    return texts[static_cast<size_t>(state) - 1];
}

// Adds fields for the faults that have affected the datagram. Two of the faults make a datagram late; they share a
// field.
void add_faults(const embedded::datagram_faults& faults, json& fields)
{
    if (faults.is_twin) fields["twin"] = true;
    if (faults.is_late || faults.is_jittered) fields["late"] = true;
    if (faults.is_held_back) fields["held"] = true;
    if (faults.is_corrupted) fields["corrupt"] = true;
}

tl::unexpected<ats::error> write_failure()
{
    return ats::fail(std::string("cannot write the recording: ") + std::strerror(errno));
}

} // namespace

recorder::recorder(std::FILE* file, const std::string& program, report_t report)
    : file_(file), report_(std::move(report))
{
    const json header = {{"format", "ats-recording"}, {"version", format_version}, {"program", program}};
    write_line(header.dump());
}

void recorder::follow(embedded::subnet& subnet)
{
    subnet_ = &subnet;
    subnet.set_observer(this);
}

void recorder::stop()
{
    if (subnet_) subnet_->set_observer(nullptr);
    for (const auto& [machine, handle] : log_handles_) {
        machine->log.unfollow(handle);
        machine->get<stack::event_watch>().set(nullptr);
    }
    log_handles_.clear();
}

void recorder::follow(const std::string& host, kernel::machine& machine)
{
    log_handles_[&machine] = machine.log.follow([this, host](const kernel::log_line& line) { note_line(host, line); });
    machine.get<stack::event_watch>().set(
        [this, host](const stack::handled_event& event) { note_handled(host, event); });
}

void recorder::note_line(const std::string& host, const kernel::log_line& line)
{
    note(line.tick, "log", {{"host", host}, {"level", line.priority}, {"text", line.text}});
}

void recorder::note_handled(const std::string& host, const stack::handled_event& event)
{
    const std::string port = port_name(host, event.hca.name(), event.port);
    const char* const cause = cause_of(event, port);
    note(event.tick, "handled", {{"port", port}, {"event", text_of(event.change)}, {"cause", cause}});
}

// Returns the text of the event's cause. A fabric reports a changed LID only as port_change::reregister, so this
// function compares the port's LID with its LID at the last link-up.
const char* recorder::cause_of(const stack::handled_event& event, const std::string& port)
{
    const std::lock_guard lock(mutex_);
    const bool has_other_lid = registered_lids_.contains(port) && registered_lids_[port] != lids_[port];
    if (event.change == fabric::port_change::link_up) registered_lids_[port] = lids_[port];
    if (event.is_announcement) return "subscription";
    return event.cause == fabric::port_change::reregister && has_other_lid ? "LID change" : text_of(event.cause);
}

void recorder::note(uint64_t now_ticks, const char* kind, json fields)
{
    note_faults(now_ticks);
    const std::lock_guard lock(mutex_);
    write(now_ticks, kind, fields);
}

void recorder::note_faults(uint64_t now_ticks)
{
    if (!subnet_) return;
    const switch_values values = values_of(subnet_->faults);
    const std::lock_guard lock(mutex_);
    for (size_t i = 0; i < values.size(); ++i)
        if (values[i] != switches_[i]) write(now_ticks, "fault", {{"name", switch_names[i]}, {"value", values[i]}});
    switches_ = values;
}

void recorder::note_table(uint64_t now_ticks)
{
    json records = json::array();
    for (const ib_service_record_v2_t& record : subnet_->save_records()) records.push_back(fields_of(record));
    note(now_ticks, "table", {{"records", records}});
}

ats::result<> recorder::finish(uint64_t now_ticks)
{
    json fields = json::object();
    if (subnet_) {
        const embedded::subnet_counts counts = subnet_->counts();
        fields = {{"sent", counts.sent},
                  {"arrived", counts.arrived},
                  {"dropped", counts.dropped},
                  {"duplicated", counts.duplicated},
                  {"refused", counts.refused}};
    }
    note_faults(now_ticks);
    const std::lock_guard lock(mutex_); // no other event may come between "end" and is_finished_
    write(now_ticks, "end", fields);
    is_finished_ = true;
    if (status_ && std::fflush(file_) != 0) status_ = write_failure();
    return status_;
}

void recorder::sent(uint64_t now_ticks, const embedded::observed_datagram& datagram, const embedded::port_view* sender,
                    uint16_t destination_lid)
{
    json fields = {{"n", datagram.number}, {"from", name_of(sender)}, {"lid", destination_lid}};
    fields.update(fields_of(datagram.mad));
    note(now_ticks, "sent", std::move(fields));
}

void recorder::arrived(uint64_t now_ticks, const embedded::observed_datagram& datagram,
                       const embedded::port_view* receiver)
{
    json fields = {{"n", datagram.number}, {"to", name_of(receiver)}};
    add_faults(datagram.faults, fields);
    note(now_ticks, "arrived", std::move(fields));
}

void recorder::lost(uint64_t now_ticks, const embedded::observed_datagram& datagram, const char* reason,
                    bool has_reached_end)
{
    json fields = {{"n", datagram.number}, {"why", reason}, {"at_end", has_reached_end}};
    add_faults(datagram.faults, fields);
    note(now_ticks, "lost", std::move(fields));
}

void recorder::refused(uint64_t now_ticks, const fabric::mad_bytes& mad, const embedded::port_view& sender)
{
    json fields = {{"from", name_of(&sender)}};
    fields.update(fields_of(mad));
    note(now_ticks, "refused", std::move(fields));
}

void recorder::port_changed(uint64_t now_ticks, const embedded::port_view& port)
{
    {
        const std::lock_guard lock(mutex_);
        lids_[name_of(&port)] = port.lid;
    }
    note(now_ticks, "port",
         {{"port", name_of(&port)},
          {"host", port.host_name},
          {"gid", port.gid},
          {"lid", port.lid},
          {"sm_lid", port.sm_lid},
          {"state", text_of(port.state)}});
}

void recorder::sm_moved(uint64_t now_ticks, uint16_t lid)
{
    note(now_ticks, "sm", {{"lid", lid}});
}

void recorder::record_stored(uint64_t now_ticks, const ib_service_record_v2_t& record)
{
    note(now_ticks, "stored", fields_of(record));
}

void recorder::record_removed(uint64_t now_ticks, const ib_service_record_v2_t& record)
{
    note(now_ticks, "removed", fields_of(record));
}

recorder::switch_values recorder::values_of(const embedded::fault_switches& faults)
{
    return {faults.latency_ticks,   faults.jitter_ticks,    faults.loss_percent,     faults.duplicate_percent,
            faults.reorder_percent, faults.corrupt_percent, faults.drop_next,        faults.drop_next_answers,
            faults.queue_full,      faults.refuse_percent,  faults.sa_service_ticks, faults.sa_silent,
            faults.sa_busy,         faults.sa_status,       faults.sa_status_count};
}

// The caller holds mutex_.
void recorder::write(uint64_t now_ticks, const char* kind, const json& fields)
{
    if (is_finished_) return;
    json line = {{"t", now_ticks}, {"e", kind}};
    line.update(fields);
    // A host name may contain any bytes. dump() replaces those that are not UTF-8 by U+FFFD.
    write_line(line.dump(-1, ' ', false, json::error_handler_t::replace));
}

// The caller holds mutex_, except the constructor.
void recorder::write_line(const std::string& line)
{
    if (!status_ || std::fputs((line + "\n").c_str(), file_) >= 0) return;
    status_ = write_failure();
    if (report_) report_(status_.error().text);
}

} // namespace recording

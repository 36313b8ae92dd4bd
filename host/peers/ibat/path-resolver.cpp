// Implements class path_resolver, except for its requests (see path-requests.cpp): open and close, the source port, and
// lookups in the cache.
#include "host/peers/ibat/path-resolver.h"

#include "host/peers/ibat/path-records.h"

namespace ibat
{
namespace
{

constexpr size_t expected_requests = 512;

} // namespace

void path_resolver::prepare(const path_limits& limits, kq_async_event_fn_t event)
{
    limits_ = limits;
    event_ = event;
    sema_init_named(&opening_, 1, "ibat paths");
    is_open_ = false;
    provider_port_ = 0;
    spin_lock_init(&lock_);
    counters_ = {};
    has_source_ = false;
    generation_ = 0;
    last_serial_ = 0;
    requests_.prepare(
        &lock_, [](unsigned long self) { reinterpret_cast<path_resolver*>(self)->retry_due(); }, this);
}

// Opens the ports and allocates the memory, if that is not done yet. Returns false if it fails; the next call then
// tries again. May sleep.
bool path_resolver::open()
{
    if (is_open()) return true;
    down(&opening_);
    const bool is_opened = is_open() || open_all();
    up(&opening_);
    return is_opened;
}

bool path_resolver::open_all()
{
    const auto receive_callback = [](gsi_class_handle_t, void* self, gsi_dtgrm_t* datagram) {
        sa_mad_v2_t mad;
        memcpy(&mad, datagram->mad, sizeof mad);
        gsi_dtgrm_pool_put(datagram);
        static_cast<path_resolver*>(self)->take_answer(mad);
    };
    if (cache_.open(limits_.capacity, limits_.lifetime_ticks)) {
        if (requests_.open()) {
            if (requests_by_serial_.open(expected_requests)) {
                is_open_.store(ports_.open({.receive_callback = receive_callback, .context = this, .event = event_}),
                               std::memory_order_release);
                if (is_open()) return true;
                requests_by_serial_.close();
            }
            requests_.close();
        }
        cache_.close();
    }
    return false;
}

void path_resolver::close()
{
    if (!is_open()) return;
    {
        spin_guard guard(&lock_);
        requests_.for_each([this](path_request* request) { give_up(request, ibat_stat_error); });
    }
    requests_.stop_timer();
    ports_.close();
    requests_.close();
    is_open_ = false;
    cache_.close();
    requests_by_serial_.close();
}

// ---- the source port ----

// Stores in `*source` the port on which paths begin now, and in `*generation` the present generation. Returns false if
// no port is active. May sleep.
bool path_resolver::find_source(source_port* source, uint64_t* generation)
{
    {
        spin_guard guard(&lock_);
        *generation = generation_;
        if (has_source_) {
            *source = source_;
            return true;
        }
    }
    if (!find_active_port(source)) return false;
    spin_guard guard(&lock_);
    if (*generation == generation_) {
        source_ = *source;
        has_source_ = true;
    }
    return true;
}

// Finds an active port. Prefers the port that the provider of addresses uses. If the link of this port is down, the
// provider also changes to another port.
bool path_resolver::find_active_port(source_port* source) const
{
    const uint32_t provider_port = provider_port_;
    if (ports_.read(provider_port, source)) return true;
    for (uint32_t number = 1; number <= static_cast<uint32_t>(ports_.count()); ++number)
        if (number != provider_port && ports_.read(number, source)) return true;
    return false;
}

// Call it when the source port may have changed. Drops all paths and ignores the answers to all waiting attempts. The
// next attempts follow at once. The caller holds the lock.
void path_resolver::leave_source()
{
    assert(is_held(lock_));
    ++generation_;
    if (!has_source_) return;
    has_source_ = false;
    counters_.drops += static_cast<uint64_t>(cache_.clear());
    requests_.for_each([this](path_request* request) { invalidate_attempt(request); });
    requests_.hurry_all();
}

void path_resolver::note_provider_port(uint32_t number)
{
    if (number == 0 || provider_port_.exchange(number) == number || !is_open()) return;
    spin_guard guard(&lock_);
    if (!has_source_ || source_.number != number) leave_source();
}

void path_resolver::take_event(const kq_event_record_st& event)
{
    // Verbs reports every active port once to a new subscriber. This report changes nothing.
    if (event.event_type == kq_async_r_port_link_up && is_same_source(event.port_num)) return;
    spin_guard guard(&lock_);
    if (!has_source_ || source_.number == event.port_num) leave_source();
}

// Returns true if this port is the source port and its attributes have not changed. May sleep.
bool path_resolver::is_same_source(uint32_t port_number)
{
    source_port port_now;
    if (!ports_.read(port_number, &port_now)) return false;
    spin_guard guard(&lock_);
    return has_source_ && source_ == port_now;
}

// ---- lookups ----

// Answers from the cache. Returns ibat_stat_pending if the cache has no path to the GID. The caller holds the lock.
ibat_stat_t path_resolver::from_cache(const kq_gid_t& gid, ibat_arp_data_t* arp_data) const
{
    const cached_path* entry = cache_.find(gid);
    if (!entry) return ibat_stat_pending;
    fill_path_record(gid, entry->path, entry->port_number, arp_data);
    return ibat_stat_ok;
}

ibat_stat_t path_resolver::cached(const kq_gid_t& gid, ibat_arp_data_t* arp_data)
{
    if (!arp_data || !is_open()) return ibat_stat_error;
    spin_guard guard(&lock_);
    if (from_cache(gid, arp_data) != ibat_stat_ok) return ibat_stat_error;
    ++counters_.lookups;
    ++counters_.hits;
    return ibat_stat_ok;
}

ibat_stat_t path_resolver::get(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                               void* context)
{
    if (gid == kq_gid_t{} || !arp_data || !callback || !open()) return ibat_stat_error;
    {
        spin_guard guard(&lock_);
        ++counters_.lookups;
        if (from_cache(gid, arp_data) == ibat_stat_ok) {
            ++counters_.hits;
            return ibat_stat_ok;
        }
    }
    return ask(gid, arp_data, callback, context);
}

ibat_stat_t path_resolver::refresh(const kq_gid_t& gid, ibat_get_ib_data_reply_fn_t callback, void* context)
{
    if (gid == kq_gid_t{} || !callback || !open()) return ibat_stat_error;
    return ask(gid, nullptr, callback, context);
}

// ---- dropping paths, and counters ----

void path_resolver::forget(const kq_gid_t& gid)
{
    if (!is_open()) return;
    spin_guard guard(&lock_);
    counters_.drops += static_cast<uint64_t>(cache_.forget(gid));
}

void path_resolver::flush()
{
    if (!is_open()) return;
    spin_guard guard(&lock_);
    counters_.drops += static_cast<uint64_t>(cache_.clear());
}

ibat_path_counters_t path_resolver::counters()
{
    spin_guard guard(&lock_);
    counters_.entries = is_open() ? static_cast<uint64_t>(cache_.count()) : 0;
    counters_.pending = requests_.count();
    return counters_;
}

} // namespace ibat

// Finds paths from the host's active port to GIDs, in the cache or by asking the SA. Several askers share one request
// per GID. A request is repeated until an answer comes or no attempt is left. Every attempt has a serial number, which
// its answer repeats.
//
// An event of the port makes the paths invalid. The resolver then empties the cache, ignores answers to earlier
// attempts, and repeats their requests at once.
//
// Before the first question, the resolver opens no HCA and allocates no memory. One spin lock guards everything. No
// code sleeps or calls another module while holding it.
#pragma once

#include <atomic>

#include "host/peers/ibat-path-exports.h"
#include "host/peers/ibat/path-cache.h"
#include "host/peers/ibat/request-list.h"
#include "host/peers/ibat/sa-ports.h"

namespace ibat
{

struct path_limits {
    int32_t capacity;
    unsigned long lifetime_ticks;
    int32_t attempts; // total number
    unsigned long retry_ticks;
};

// A request for the path to one GID.
struct path_request : request_base {
    path_request* next_by_gid;
    path_request* next_by_serial;
    kq_gid_t gid;
    uint32_t serial; // of the attempt that waits for its answer; 0 if none
    uint32_t port_number;
};

// ibat-path-exports.h describes the calls.
class path_resolver
{
  public:
    // Call it before every other call. `event` passes the events of the HCA to take_event().
    void prepare(const path_limits& limits, kq_async_event_fn_t event);

    // Ends every request with an error and frees everything. May sleep.
    void close();

    ibat_stat_t get(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                    void* context);
    ibat_stat_t refresh(const kq_gid_t& gid, ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_stat_t cached(const kq_gid_t& gid, ibat_arp_data_t* arp_data);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_path_counters_t counters();

    // Returns true after the first question. Any context.
    bool is_open() const { return is_open_.load(std::memory_order_acquire); }

    // Call it when the provider of addresses uses this port from now on. Any context.
    void note_provider_port(uint32_t number);

    // Drops the path to a GID, or all paths. Requests continue. Any context.
    void forget(const kq_gid_t& gid);
    void flush();

    // May sleep.
    void take_event(const kq_event_record_st& event);

  private:
    struct attempt {
        source_port source;
        kq_gid_t gid;
        uint64_t request_id;
        uint32_t serial;
        bool is_retry;
    };

    bool open();
    bool open_all();
    bool find_source(source_port* source, uint64_t* generation);
    bool find_active_port(source_port* source) const;
    ibat_stat_t from_cache(const kq_gid_t& gid, ibat_arp_data_t* arp_data) const;
    ibat_stat_t ask(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                    void* context);
    void send(const kq_gid_t& gid, uint64_t request_id);
    bool begin_attempt(const kq_gid_t& gid, uint64_t request_id, attempt* attempt);
    uint32_t free_serial();
    void void_attempt(path_request* request);
    void await_answer(path_request* request);
    void retry_due();
    bool next_due(kq_gid_t* gid, uint64_t* request_id);
    void take_answer(const sa_mad_v2_t& mad);
    void take_path(path_request* request, const ib_path_record_v2_t& path);
    void complete(path_request* request, ibat_stat_t status, const ibat_arp_data_t& answer);
    void give_up(path_request* request, ibat_stat_t status);
    void leave_source();
    bool is_same_source(uint32_t port_number);

    path_limits limits_;
    kq_async_event_fn_t event_;
    semaphore opening_;
    std::atomic<bool> is_open_;
    std::atomic<uint32_t> provider_port_; // 0 if unknown

    spinlock_t lock_;
    sa_ports ports_;
    path_cache cache_;
    ibat_path_counters_t counters_;
    source_port source_;
    bool has_source_;     // source_ is the active port, according to the events so far
    uint64_t generation_; // counts the events that made a source invalid
    request_list<path_request, kq_gid_t, &path_request::gid, &path_request::next_by_gid> requests_;
    hash_index<path_request, uint32_t, &path_request::serial, &path_request::next_by_serial> requests_by_serial_;
    uint32_t last_serial_;
};

} // namespace ibat

// Finds paths from the host's active port, the source, to GIDs. It answers from a cache, or asks the SA. All callers
// that ask for the same GID share one request. A request is repeated until a final answer comes, no port is active or
// no attempt is left. Every attempt has a serial number. The number is in the low 24 bits of the TransactionID, and
// comes back in the answer.
//
// If the source port may have changed, the paths are invalid. The resolver then empties the cache, ignores answers to
// earlier attempts, and repeats the requests at once.
//
// Before the first call of get() or refresh(), the resolver opens no HCA and allocates no memory. One spin lock guards
// the cache, the counters, the source and the requests. No code sleeps or calls another module while it holds the lock.
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
    int32_t attempts;          // largest number of attempts of a request, including the first one
    unsigned long retry_ticks; // time from one attempt to the next
};

// A request for the path to one GID.
struct path_request : request_base {
    path_request* next_by_gid;
    path_request* next_by_serial;
    kq_gid_t gid;
    uint32_t serial;      // number of the attempt that waits for its answer; 0 if no attempt waits
    uint32_t port_number; // the port on which this attempt was sent
};

// For functions without a comment, see ibat-path-exports.h.
class path_resolver
{
  public:
    // Call it before every other call. `event` becomes the callback for the events of the HCA. The callback must pass
    // them to take_event().
    void prepare(const path_limits& limits, kq_async_event_fn_t event);

    // Ends every request with an error and frees everything. May sleep.
    void close();

    ibat_stat_t get(const kq_gid_t& gid, ibat_arp_data_t* arp_data, ibat_get_ib_data_reply_fn_t callback,
                    void* context);
    ibat_stat_t refresh(const kq_gid_t& gid, ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_stat_t cached(const kq_gid_t& gid, ibat_arp_data_t* arp_data);
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context);
    ibat_path_counters_t counters();

    // Returns true if get() or refresh() has opened the HCA. Any context.
    bool is_open() const { return is_open_.load(std::memory_order_acquire); }

    // Call it when the provider of addresses (see resolver.h) has received an answer on this port. Paths begin on the
    // same port if its link is active. The number 0 means that the port is unknown. Any context.
    void note_provider_port(uint32_t number);

    // forget() drops the path to a GID, flush() drops all paths. Requests continue. Any context.
    void forget(const kq_gid_t& gid);
    void flush();

    // Call it for every event of the HCA. Drops the paths if the source port may have changed. May sleep.
    void take_event(const kq_event_record_st& event);

  private:
    struct attempt {
        source_port source;
        uint64_t generation; // generation_ at the beginning of the attempt
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
    void invalidate_attempt(path_request* request);
    void await_answer(path_request* request, uint64_t generation);
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
    semaphore opening_; // held while a task opens the resolver
    std::atomic<bool> is_open_;
    std::atomic<uint32_t> provider_port_; // the number of note_provider_port(); 0 means unknown

    spinlock_t lock_;
    sa_ports ports_;
    path_cache cache_;
    ibat_path_counters_t counters_;
    source_port source_;
    bool has_source_;     // true if source_ is valid: from find_source() to leave_source()
    uint64_t generation_; // changes whenever the source port may have changed
    request_list<path_request, kq_gid_t, &path_request::gid, &path_request::next_by_gid> requests_;
    hash_index<path_request, uint32_t, &path_request::serial, &path_request::next_by_serial> requests_by_serial_;
    uint32_t last_serial_;
};

} // namespace ibat

// Replacements for the modules IBAT and UCM. They record the calls of ats, and answer as the test requires. Each
// machine has one object of this class. The object publishes its functions under the names that the functions of IBAT
// and UCM have.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "devucm-exports.h"
#include "host/kernel/machine.h"
#include "kernel/sync.h"
#include "kernel/time.h"

class recording_peers final : public kernel::service
{
  public:
    explicit recording_peers(kernel::machine& home) : home_(home) {}

    // The object of the machine in which the caller runs.
    static recording_peers& here() { return kernel::current_machine("a peer's function").get<recording_peers>(); }

    void publish_ibat()
    {
        publish("ibat_attach_fn", static_cast<ibat_attach_fn_t>(attach));
        publish("ibat_detach_fn", static_cast<ibat_detach_fn_t>(detach));
        publish("ibat_process_arp_data_fn", static_cast<ibat_process_arp_data_fn_t>(process));
        publish("ibat_seq_cache_lookup_fn", static_cast<ibat_seq_cache_lookup_fn_t>(look_up));
    }
    void publish_ucm()
    {
        publish("ucm_rarp_attach_fn", static_cast<ucm_rarp_attach_fn_t>(ucm_attach));
        publish("ucm_rarp_detach_fn", static_cast<ucm_rarp_detach_fn_t>(ucm_detach));
    }
    void withdraw(const std::string& name) { home_.inter_modules.withdraw(name); }

    // The number of references that ats holds on the functions of IBAT and UCM.
    int references() const
    {
        int sum = 0;
        for (const std::string& name : home_.inter_modules.names()) sum += home_.inter_modules.references(name);
        return sum;
    }

    // The attaches and detaches, in order: "attach", "detach", "ucm attach" or "ucm detach". If an argument was wrong,
    // the text is longer, for example "detach of another handle".
    std::vector<std::string> calls;
    bool accepts = true;                  // false: IBAT refuses that ats attaches
    unsigned long attach_takes_ticks = 0; // duration of IBAT's attach function
    bool ucm_accepts = true;              // false: UCM refuses that ats attaches

    send_arp_data_fn_t send_arp = nullptr; // set while ats is attached
    void* arp_context = nullptr;
    send_rarp_fn_t send_rarp = nullptr;
    void* rarp_context = nullptr;

    std::vector<ibat_arp_data_t> replies;             // the replies that ats passed to IBAT
    std::function<void()> processing_hook;            // called for each reply, before IBAT returns to ats
    std::vector<std::pair<kq_gid_t, uint32_t>> cache; // the cache of IBAT

  private:
    template <class function_t>
    void publish(const char* name, function_t function)
    {
        home_.inter_modules.publish(name, nullptr, reinterpret_cast<const void*>(function));
    }

    static ibat_stat_t attach(get_if_info_fn_t get_if_info, send_arp_data_fn_t send_arp, void* context, void** handle)
    {
        recording_peers& self = here();
        self.calls.push_back(get_if_info ? "attach with get_if_info" : "attach");
        if (self.attach_takes_ticks) schedule_timeout_uninterruptible(self.attach_takes_ticks);
        if (!self.accepts) return ibat_stat_error;
        self.send_arp = send_arp;
        self.arp_context = context;
        *handle = &self.send_arp;
        return ibat_stat_ok;
    }
    static ibat_stat_t detach(void* handle)
    {
        recording_peers& self = here();
        self.calls.push_back(handle == &self.send_arp ? "detach" : "detach of another handle");
        self.send_arp = nullptr;
        return ibat_stat_ok;
    }
    static ibat_stat_t process(ibat_arp_data_t* reply)
    {
        here().replies.push_back(*reply);
        if (here().processing_hook) here().processing_hook();
        return ibat_stat_error; // ats must ignore this value
    }
    static ibat_stat_t look_up(kq_gid_t* gid, ibat_arp_data_t* record)
    {
        for (const auto& [cached_gid, ip] : here().cache) {
            if (!(cached_gid == *gid)) continue;
            record->dst_ip = ip;
            return ibat_stat_ok;
        }
        return ibat_stat_not_found;
    }
    static ucm_stat_t ucm_attach(send_rarp_fn_t send_rarp, void* context, void** handle)
    {
        recording_peers& self = here();
        self.calls.push_back("ucm attach");
        if (!self.ucm_accepts) return ucm_stat_error;
        self.send_rarp = send_rarp;
        self.rarp_context = context;
        *handle = &self.send_rarp;
        return ucm_stat_ok;
    }
    static ucm_stat_t ucm_detach(void* handle)
    {
        recording_peers& self = here();
        self.calls.push_back(handle == &self.send_rarp ? "ucm detach" : "ucm detach of another handle");
        self.send_rarp = nullptr;
        return ucm_stat_ok;
    }

    kernel::machine& home_;
};

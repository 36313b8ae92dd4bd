// A host with the module IBAT. In the place of ats, a fake resolver is attached to IBAT. The resolver records IBAT's
// calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/peers/peer-world.h"

struct recording_resolver {
    std::vector<std::pair<uint64_t, uint32_t>> attempts; // tick and address of each send_arp(), whatever it returned
    ibat_stat_t result = ibat_stat_ok;                   // returned by send_arp()
    unsigned long duration_ticks = 0;                    // send_arp() sleeps for this time
    int call_count = 0;                                  // calls of send_arp() that have not returned
    std::function<void(uint32_t)> action;                // runs in each send_arp(), with the address

    static ibat_stat_t send_arp(ibat_arp_data_t* arp_data, void* self, int)
    {
        auto* resolver = static_cast<recording_resolver*>(self);
        EXPECT_TRUE(arp_data->mask & IBAT_MASK_DST_IP);
        ++resolver->call_count;
        resolver->attempts.emplace_back(get_jiffies(), arp_data->dst_ip);
        if (resolver->duration_ticks) schedule_timeout_uninterruptible(resolver->duration_ticks);
        if (resolver->action) resolver->action(arp_data->dst_ip);
        --resolver->call_count;
        return resolver->result;
    }
};

class ibat_world : public peer_world
{
  public:
    explicit ibat_world(const std::string& parameters = "", const exec::simulation_options& options = {})
        : peer_world("ibat", parameters, options)
    {
        if (!loaded) return;
        attach = published<ibat_attach_fn_t>("ibat_attach_fn");
        detach = published<ibat_detach_fn_t>("ibat_detach_fn");
        process = published<ibat_process_arp_data_fn_t>("ibat_process_arp_data_fn");
        look_up_gid = published<ibat_seq_cache_lookup_fn_t>("ibat_seq_cache_lookup_fn");
        get_ib_data = published<ibat_get_ib_data_fn_t>("ibat_get_ib_data_fn");
        refresh = published<ibat_refresh_fn_t>("ibat_refresh_fn");
        cancel = published<ibat_cancel_fn_t>("ibat_cancel_fn");
        peek = published<ibat_peek_fn_t>("ibat_peek_fn");
        read_counters = published<ibat_counters_fn_t>("ibat_counters_fn");
        flush = published<ibat_flush_fn_t>("ibat_flush_fn");
        run([&] { EXPECT_EQ(attach(nullptr, recording_resolver::send_arp, &resolver, &handle), ibat_stat_ok); });
    }

    ibat_stat_t ask(uint32_t ip, asker& caller)
    {
        ibat_stat_t status{};
        run([&] { status = get_ib_data(ip, &record, asker::reply_callback, &caller); });
        return status;
    }

    // Passes a reply to IBAT in a context that may not sleep, as ats does.
    ibat_stat_t reply(const ibat_arp_data_t& arp)
    {
        ibat_stat_t status{};
        run([&] { status = reply_here(arp); });
        return status;
    }
    // Like reply(), but for a caller that is already a task of the host.
    ibat_stat_t reply_here(ibat_arp_data_t arp)
    {
        exec::atomic_section section("completion");
        return process(&arp);
    }

    static ibat_arp_data_t answer(uint32_t ip, kq_gid_t gid, uint32_t port = 1, uint32_t more_mask = 0)
    {
        ibat_arp_data_t arp{};
        arp.mask = IBAT_MASK_SRC_IP | IBAT_MASK_DST_IP | IBAT_MASK_GID | IBAT_MASK_LOCAL_PORT_NUM | more_mask;
        arp.arp_operation = IBAT_ARP_REPLY;
        arp.src_ip = ip;
        arp.gid = gid;
        arp.local_port_num = port;
        return arp;
    }
    static ibat_arp_data_t own(uint32_t ip, kq_gid_t gid, uint32_t port = 1)
    {
        return answer(ip, gid, port, IBAT_MASK_STATIC);
    }
    static ibat_arp_data_t absence(uint32_t ip) { return answer(ip, kq_gid_t{}); }

    // The cache entry of an address as a text: "1" (the number of the GID), "1 own", "none" (a negative entry) or
    // "unknown" (no entry).
    std::string entry_text(uint32_t ip)
    {
        std::string text = "unknown";
        run([&] {
            ibat_arp_data_t entry{};
            const ibat_stat_t status = peek(ip, &entry);
            if (status == ibat_stat_ok) text = std::to_string(entry.gid.eui64 - gid_of(0).eui64);
            if (status == ibat_stat_ok && entry.mask & IBAT_MASK_STATIC) text += " own";
            if (status == ibat_stat_not_found) text = "none";
        });
        return text;
    }

    // The address of a GID in the cache, or 0 if there is none.
    uint32_t address_of(kq_gid_t gid)
    {
        uint32_t ip = 0;
        run([&] {
            ibat_arp_data_t entry{};
            if (look_up_gid(&gid, &entry) == ibat_stat_ok) ip = entry.dst_ip;
        });
        return ip;
    }

    ibat_counters_t counters()
    {
        ibat_counters_t values{};
        run([&] { read_counters(&values); });
        return values;
    }

    recording_resolver resolver;
    void* handle = nullptr;
    ibat_arp_data_t record{}; // filled by ask()

    ibat_attach_fn_t attach;
    ibat_detach_fn_t detach;
    ibat_process_arp_data_fn_t process;
    ibat_seq_cache_lookup_fn_t look_up_gid;
    ibat_get_ib_data_fn_t get_ib_data;
    ibat_refresh_fn_t refresh;
    ibat_cancel_fn_t cancel;
    ibat_peek_fn_t peek;
    ibat_counters_fn_t read_counters;
    ibat_flush_fn_t flush;
};

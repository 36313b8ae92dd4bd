// Self-verification. Each context periodically asks the SA for the address of its own GID. If there is no answer, or
// the answer is not its own address, the context registers again.
#include "ats-api.h"

#include <algorithm>
#include <cstdio>

#include "kernel/memory.h"
#include "kernel/time.h"

std::atomic<int32_t> verification_period{60};
std::atomic<int32_t> verification_period_skew_percent{1};

namespace
{

constexpr int64_t ticks_per_second = HZ;
constexpr unsigned long off_ticks = 60 * HZ; // while verification is off, the timer checks for a new period this often
constexpr size_t ipaddr_text_size = 30;
constexpr int64_t skew_divisor = int64_t{100} * 255; // 100 percent times the largest random byte

// Returns the tick of the next check. The check comes after one period plus a random part of the skew, which is a
// percentage of the period. The random part spreads the checks of many hosts over time.
unsigned long calc_verify_timeout()
{
    uint8_t random;
    get_random_bytes(&random, sizeof random);
    const int64_t period_ticks =
        std::max(verification_period.load(), 0) * ticks_per_second; // a negative period means off, like 0
    const int64_t delay = period_ticks + period_ticks * verification_period_skew_percent * random / skew_divisor;
    ATS_DEBUG("timeout=%lu\n", static_cast<unsigned long>(delay));
    return jiffies + static_cast<unsigned long>(delay);
}

// Sends a Set of the active port's record. Does not sleep.
void restore_registration(ats_context_t* ats, const char* operation)
{
    // The caller may not sleep, so this function cannot take `ats_sem`. Instead, `restores_running` counts the calls of
    // this function. A task that registers another port, address or host name waits in ats_sa_wait_for_restores until
    // this Set is posted, and then sends its own Delete and Set.
    ++ats->restores_running;
    const int32_t ret = ats_sa_post_set(ats);
    ++ats->sets_tried;
    --ats->restores_running;
    if (ret != 0) ATS_TRACE_AS(operation, ZR_DEBUG, "Can't start SA set of service record   ret=%d\n", ret);
}

void show_addresses(uint32_t held_by_sa, uint32_t own, const char* operation)
{
    if (!zr_is_traced(ZR_DEBUG, ATS_trace_level)) return;
    char first[ipaddr_text_size]; // a copy, because the second print_ipaddr overwrites the buffer of the first
    snprintf(first, sizeof first, "%s", print_ipaddr(held_by_sa));
    ATS_TRACE_AS(operation, ZR_DEBUG, "ipaddresses [%s, %s]\n", first, print_ipaddr(own));
}

// Compares the SA's answer with the context's own address. If they differ, or if the SA has sent no address, registers
// again through the active port, if there is one. After a time-out, `arp_data` is null. Runs in the completion context
// or in the request timer.
void rarp_callback(ibat_stat_t status, ibat_arp_data_t* arp_data, void* context)
{
    ATS_DEBUG("status=%s  arp_data=%p  context=%p\n", print_ibat_stat(status), static_cast<void*>(arp_data), context);
    auto* ats = static_cast<ats_context_t*>(context);
    const ats_port_ctx_t* port = ats->active_port;
    if (!port) {
        ATS_DEBUG("no active port\n");
        return;
    }
    if (arp_data && status == ibat_stat_ok) {
        const uint32_t own_ip = port->port_ipaddr;
        show_addresses(arp_data->dst_ip, own_ip, __func__);
        if (arp_data->dst_ip == own_ip) {
            ATS_DEBUG("ipaddress match\n");
            return;
        }
    }
    ATS_DEBUG("gid & ipaddress don't match\n");
    restore_registration(ats, __func__);
}

// The function of the verification timer. Arms the timer again. If verification is on and a port is active, sends the
// question to the SA. `data` is the context's index in ats_cntx. May sleep.
void verification_callback(unsigned long data)
{
    ATS_DEBUG("data=%lu\n", data);
    if (data >= ATS_MAX_HCAS) {
        ATS_ERROR("hca index too big %lu !!!!!!!\n", data);
        return;
    }
    ats_context_t* ats = &ats_cntx[data];
    timing_t* timer = &ats->timing_request;
    timer->function = verification_callback;
    const bool is_on = verification_period > 0;
    timer->expires = is_on ? calc_verify_timeout() : jiffies + off_ticks;
    add_timing(timer);
    if (!is_on) return;

    const ats_port_ctx_t* port = ats->active_port;
    if (!port) {
        ATS_DEBUG("no active port\n");
        return;
    }
    ibat_arp_data_t query{};
    query.gid = port->port_gid.load();
    ATS_DEBUG("call ats_rarp_send_nocache()  hca %lu\n", data);
    const ibat_stat_t ret = ats_rarp_send_nocache(&query, rarp_callback, ats, ats);
    if (ret == ibat_stat_pending)
        ATS_DEBUG("call ats_rarp_send_nocache() returned %s - sent successfully, now waiting for reply\n",
                  print_ibat_stat(ret));
    else
        ATS_DEBUG("call ats_rarp_send_nocache() returned %s\n", print_ibat_stat(ret));
}

} // namespace

void start_verification(int32_t n_hcas)
{
    for (int32_t i = 0; i < n_hcas; ++i) {
        timing_t* timer = &ats_cntx[i].timing_request;
        init_timing(timer);
        timer->expires = calc_verify_timeout();
        timer->data = static_cast<unsigned long>(i);
        timer->function = verification_callback;
        add_timing(timer);
    }
}

void end_verification(int32_t n_hcas)
{
    for (int32_t i = 0; i < n_hcas; ++i) del_timing_sync(&ats_cntx[i].timing_request);
}

// Several threads may trace at the same time. The next two functions therefore use one buffer for each thread.

const char* print_ibat_stat(ibat_stat_t stat)
{
    thread_local char text[200];
    const char* name = "unknown status code";
    switch (stat) {
    case ibat_stat_ok:
        name = "ibat_stat_ok";
        break;
    case ibat_stat_pending:
        name = "ibat_stat_pending";
        break;
    case ibat_stat_timeout:
        name = "ibat_stat_timeout";
        break;
    case ibat_stat_error:
        name = "ibat_stat_error";
        break;
    case ibat_stat_not_found:
        name = "ibat_stat_not_found";
        break;
    }
    snprintf(text, sizeof text, "%s (%d)", name, stat);
    return text;
}

const char* print_ipaddr(uint32_t addr)
{
    thread_local char text[ipaddr_text_size];
    snprintf(text, sizeof text, "%d.%d.%d.%d", ATS_IP_ARGS(addr));
    return text;
}

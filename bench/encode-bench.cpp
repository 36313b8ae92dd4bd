// Measures how long the module ats takes to encode a request, to decode a reply, and to skip a trace line that is off.
// Also measures simpler work, for comparison. A loaded module does not export its encoder and decoder. Therefore this
// program links their file.
#include <benchmark/benchmark.h>

#include "ib-code/ats/ats-sa.h"
#include "records/host-record.h"

std::atomic<int32_t> ATS_trace_level;
std::atomic<int32_t> logger_trace_level;

namespace
{

struct module_state {
    module_state()
    {
        context.service_id = records::service_id;
        context.num_of_hca_ports = 1;
        context.host_name.store({"node1"});
        ats_port_ctx_t& port = context.ib_ports[0];
        port.port_num = 1;
        port.port_gid.store({.eui64 = 0x0A0B0C0D0E0F1011, .subnet = 0xFE80000000000000});
        port.ats_context = &context;
        context.active_port = &port;
    }

    ats_context_t context{};
    gsi_dtgrm_t datagram{};
    ibat_arp_data_t query{};
};

void clear_and_copy_256_bytes(benchmark::State& state)
{
    uint8_t source[MAD_SIZE] = {1}, target[MAD_SIZE];
    for (auto _ : state) {
        memset(target, 0, sizeof target);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
        memcpy(target, source, sizeof target);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(clear_and_copy_256_bytes);

template <ats_sa_op_t op>
void encode_request(benchmark::State& state)
{
    module_state module;
    constexpr bool is_get = op == ATS_GET_SR_ARP_OP || op == ATS_GET_SR_RARP_OP;
    for (auto _ : state) {
        ats_sa_encode_mad(&module.datagram, &module.context, module.context.active_port, op, &module.query,
                          op == ATS_SET_SR_OP, is_get, 0);
        benchmark::DoNotOptimize(module.datagram);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(encode_request<ATS_SET_SR_OP>);
BENCHMARK(encode_request<ATS_DEL_SR_OP>);
BENCHMARK(encode_request<ATS_GET_SR_ARP_OP>);
BENCHMARK(encode_request<ATS_GET_SR_RARP_OP>);

void decode_reply(benchmark::State& state)
{
    module_state module;
    ats_sa_encode_mad(&module.datagram, &module.context, module.context.active_port, ATS_SET_SR_OP, nullptr, 1, 0, 0);
    for (auto _ : state) {
        module.context.rcv_arp_data = {};
        benchmark::DoNotOptimize(ats_sa_gsi_decode_recv_dtgrm(module.context.active_port, &module.datagram));
        benchmark::DoNotOptimize(module.context.rcv_arp_data);
    }
}
BENCHMARK(decode_reply);

void empty_loop(benchmark::State& state)
{
    for (auto _ : state) benchmark::ClobberMemory();
}
BENCHMARK(empty_loop);

// Measures a trace line whose level is off. The line must not evaluate its arguments: here an argument is abort().
void trace_line_that_is_off(benchmark::State& state)
{
    for (auto _ : state) {
        ATS_DEBUG("%d\n", (abort(), 0));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(trace_line_that_is_off);

} // namespace

BENCHMARK_MAIN();

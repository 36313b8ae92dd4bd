// The control file /proc/dorvex/ats/control. A write runs one command. A read prints a report into the kernel log.
#include "ats-api.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/memory.h"
#include "kernel/printk.h"

namespace
{

constexpr size_t input_size = 4096;
constexpr int max_arguments = 30;
constexpr size_t argument_size = 41; // with its NUL

// All writes use these buffers. No lock is needed: the /proc tree runs one write of an entry at a time.
char input[input_size];
char arguments[max_arguments][argument_size];
char* argument_pointers[max_arguments];

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Splits the written bytes into words, stores them in `arguments`, and returns their number. A word that is too long
// becomes several words. Words beyond `max_arguments` are ignored. A NUL byte ends the reading; the word before it,
// even an empty one, counts only if the last written byte is not white space.
int split_into_arguments(const char* bytes, size_t count)
{
    for (int i = 0; i < max_arguments; ++i) {
        arguments[i][0] = '\0';
        argument_pointers[i] = arguments[i];
    }
    int complete = 0;
    size_t length = 0; // length of the word being read
    const auto end_word = [&] {
        assert(complete < max_arguments && length < argument_size);
        arguments[complete++][length] = '\0';
        length = 0;
    };
    for (size_t i = 0; i < count && bytes[i] != '\0' && complete < max_arguments; ++i) {
        if (is_space(bytes[i])) {
            if (length > 0) end_word();
            continue;
        }
        if (length == argument_size - 1) {
            end_word();
            if (complete == max_arguments) break;
        }
        arguments[complete][length++] = bytes[i];
    }
    if (count > 0 && complete < max_arguments && !is_space(bytes[count - 1])) end_word();
    return complete;
}

// Reads the decimal number at the start of `text`. Returns false if there is no number, or if it does not fit into
// 32 bits.
bool parse_int(const char* text, int32_t* number)
{
    char* end;
    const long value = strtol(text, &end, 10);
    if (end == text || value != static_cast<int32_t>(value)) return false;
    *number = static_cast<int32_t>(value);
    return true;
}

// `argc` is the number of words of the command line, including the command. Returns true if it is `expected`. Otherwise
// logs a line and returns false.
bool has_arguments(int argc, int expected)
{
    if (argc != expected) printk("Wrong usage. <%d>\n", argc);
    return argc == expected;
}

void ats_proc_cmd_show_local(int, char**) {}

void ats_proc_cmd_dump_requests(int, char**) {}

void show_immediate_result(ibat_stat_t status, const ibat_arp_data_t& record, const char* operation)
{
    switch (status) {
    case ibat_stat_ok:
        ATS_TRACE_AS(operation, ZR_DEBUG, "Status OK received.\n");
        ATS_TRACE_AS(operation, ZR_DEBUG, "IP:%d.%d.%d.%d\n", ATS_IP_ARGS(record.dst_ip));
        break;
    case ibat_stat_pending:
        ATS_TRACE_AS(operation, ZR_DEBUG, "Status PENDING received.\n");
        break;
    case ibat_stat_timeout:
        ATS_TRACE_AS(operation, ZR_DEBUG, "Status TIMEOUT received.\n");
        break;
    case ibat_stat_error:
        ATS_TRACE_AS(operation, ZR_ERROR, "Status ERROR received.\n");
        break;
    default:
        ATS_TRACE_AS(operation, ZR_DEBUG, "Status %d received.\n", status);
        break;
    }
}

void ats_proc_cmd_rarp(int argc, char** argv)
{
    if (!has_arguments(argc, 2)) return;
    ibat_arp_data_t query{};
    if (ats_parsegidstr(argv[1], &query.gid) != ibat_stat_ok) {
        printk("Could not parse dgid address.\n");
        return;
    }
    if (ats_n_hcas <= 0) { // there is no context, and so no IBAT to ask and no port to send through
        printk("ATS - there is no hca, can't send rarp\n");
        return;
    }
    ats_context_t* ats = &ats_cntx[0];
    show_immediate_result(ats_rarp_send(&query, ats_dummy_user_cb, ats, ats), query, __func__);
}

void ats_proc_cmd_update_hostname(int argc, char** argv)
{
    if (argc != 2) {
        ATS_ERROR("Wrong usage. <%d>\n", argc);
        return;
    }
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        if (ats_sa_update_hostname(&ats_cntx[i], argv[1]) == 0) continue;
        ATS_ERROR("ats_sa_update_hostname FAILED  hca %d\n", i);
        return;
    }
}

void ats_proc_cmd_update_ip_addrs(int argc, char** argv)
{
    if (!has_arguments(argc, 2)) return;
    if (ats_sa_set_ip_addrs_str(argv[1]) != 0) ATS_ERROR("ats_sa_update_ip_addrs FAIL\n");
}

// Each context's verification timer uses the new values from its next expiry on.
void ats_proc_cmd_verify_period(int argc, char** argv)
{
    if (argc != 3) {
        printk("Wrong usage: <period   skew percentage>     %d\n", argc);
        return;
    }
    int32_t period, skew;
    if (!parse_int(argv[1], &period) || !parse_int(argv[2], &skew)) {
        printk("ATS - can't parse values %d\n", 0);
        return;
    }
    verification_period = period;
    verification_period_skew_percent = skew < 0 ? 0 : skew > 100 ? 100 : skew;
}

// Deletes the record of the GID that was registered last. The argument does not select the record: it becomes this
// host's address, with which the host registers next. Works on the first HCA only.
void ats_proc_cmd_delete_ip(int argc, char** argv)
{
    if (!has_arguments(argc, 2)) return;
    uint32_t ip;
    if (ats_parseipstr(argv[1], &ip) != ibat_stat_ok) {
        printk("ATS - can't parse ip addr %s\n", argv[1]);
        return;
    }
    ats_context_t* ats = &ats_cntx[0];
    for (int32_t i = 0; i < ats->num_of_hca_ports; ++i) ats->ib_ports[i].port_ipaddr = ip;
    ats_sa_wait_for_restores(ats);
    (void)ats_sa_post_delete(ats);
}

const struct {
    const char* cmd_name;
    void (*cmd_func)(int argc, char** argv);
    const char* help;
} ats_proc_commands[] = {
    {"show_local", ats_proc_cmd_show_local, "shows the local data (used in the ATS SER)."},
    {"dump_requests", ats_proc_cmd_dump_requests, "shows the outstanding requests."},
    {"rarp", ats_proc_cmd_rarp, "[GID] Initiate ats rarp request."},
    {"set_host_name", ats_proc_cmd_update_hostname, "[hostname] Set new hostname"},
    {"set_ip_addrs", ats_proc_cmd_update_ip_addrs, "[ip_addrs] Set new ip address"},
    {"sa_verify_period", ats_proc_cmd_verify_period,
     "[seconds_period skew_percentage] Set new verification duration (0=off)"},
    {"delete_ip", ats_proc_cmd_delete_ip, "[ip_addrs] Remove ip address from sa"},
};

void show_usage()
{
    printk("usage:\n");
    for (const auto& command : ats_proc_commands) printk("%-12s - %s\n", command.cmd_name, command.help);
}

void show_unknown_command(int argc, char** argv)
{
    // One call prints the whole line. Lines of other tasks cannot come in between.
    char words[max_arguments * (argument_size + 3)] = "";
    for (int i = 0, length = 0; i < argc; ++i)
        length += snprintf(words + length, sizeof words - static_cast<size_t>(length), " '%s'", argv[i]);
    printk("kqt /proc: unknown command:%s\n", words);
}

void run_command(int argc, char** argv)
{
    for (const auto& command : ats_proc_commands) {
        if (argc == 0 || strcmp(argv[0], command.cmd_name) != 0) continue;
        command.cmd_func(argc, argv);
        return;
    }
    if (argc > 0) show_unknown_command(argc, argv);
    show_usage();
}

void report_port(const ats_port_ctx_t& port, int32_t number)
{
    const uint32_t ip = port.port_ipaddr;
    const kq_lid_t lid = port.port_attrib.load().port_base_lid;
    const kq_gid_t gid = port.port_gid.load();
    printk("Port%d Info:\n", number);
    printk("=============\n");
    printk("Port State %s\n", ats_port_state2str(port.state));
    printk("Port service gid  : " KQ_GID_FORMAT "\n", KQ_GID_ARGS(gid));
    printk("Port lid 0x%x (%d)\n", lid, lid);
    printk("Port IP Address %d.%d.%d.%d (%x)\n", ATS_IP_ARGS(ip), ip);
    printk("Send Counter 0x%LX , Receive Counter 0x%LX\n", static_cast<unsigned long long>(port.gsi_tx_pkts),
           static_cast<unsigned long long>(port.gsi_rx_pkts));
    printk("=================================================\n");
}

void report_hca(const ats_context_t& ats)
{
    printk("%s: ATS Ports Info\n", ats.hca_name.name);
    printk("==============\n");
    if (const ats_port_ctx_t* active = ats.active_port)
        printk("The Active Port Is Port Number %d\n", active->port_num);
    else
        printk("There is No Active Port !!!\n");
    for (int32_t i = 0; i < ats.num_of_hca_ports; ++i) report_port(ats.ib_ports[i], i + 1);
    printk("==============\n");
}

} // namespace

int ats_proc_write(struct file*, const char* user_buffer, unsigned long count, void*)
{
    // A write always succeeds. The result of the command is in the log.
    if (count > input_size)
        printk("ATS - a command has at most %zu bytes, ignoring one of %lu\n", input_size, count);
    else if (copy_from_user(input, user_buffer, count) != 0)
        printk("ATS - can't read the command\n");
    else
        run_command(split_into_arguments(input, count), argument_pointers);
    return static_cast<int>(count);
}

int ats_proc_read(char* page, char** start, off_t off, int count, int* eof, void* data)
{
    ATS_DEBUG("page = %p, *start = %p, off = %d, count = %X, *eof = %d, data = %p\n", static_cast<void*>(page),
              static_cast<void*>(*start), static_cast<int>(off), count, *eof, data);
    for (int32_t i = 0; i < ats_n_hcas; ++i) report_hca(ats_cntx[i]);
    printk("SA verification period:%d   verification skew(%%): %d\n", verification_period.load(),
           verification_period_skew_percent.load());
    return 0;
}

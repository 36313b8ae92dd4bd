// The module's entry and exit functions, the table of contexts, and the exported functions that set the host's name and
// address.
#define ATS_TRACE_UNIT "ats_module.cpp"

#include <iterator>

#include "ats.h"
#include "debug-support.h"
#include "kernel/errno.h"
#include "kernel/printk.h"
#include "module-version.h"

ats_context_t ats_cntx[ATS_MAX_HCAS];
int32_t ats_n_hcas;

const char* ats_ipaddr_str = "0.0.0.0";
const char* ats_hostName_str = "No hostname";
int32_t ats_attach_ibat = 1;

std::atomic<int32_t> ATS_trace_level;
rep_notifier_t ATS_log_rep_h;
std::atomic<int32_t> logger_trace_level;

namespace
{

constexpr const char* registry_key = "dorvex/modules/ats/";
constexpr const char* module_name = "ats";
constexpr const char* module_version = ATS_MODULE_VERSION; // defined in ib-code/CMakeLists.txt, for example "1.21"
constexpr const char* version_tag = "$Name: ATS_" ATS_MODULE_VERSION_TAG "_RELEASE $";
constexpr const char* control_file = "dorvex/ats/control";
constexpr mode_t control_file_mode = 0644;
constexpr const char* set_ip_addrs_name = "ATS_SA_SET_IP_ADDR";

const module_parameter_t parameters[] = {
    {"ats_ipaddr_str", module_parameter_text, &ats_ipaddr_str, "The host's IPv4 address, of every port"},
    {"ats_hostName_str", module_parameter_text, &ats_hostName_str, "The host name to register"},
    {"ats_attach_ibat", module_parameter_int, &ats_attach_ibat, "0: only look into IBAT's cache, do not serve it"},
};

// Filled by kq_list_hcas().
kq_hca_name hca_names[ATS_MAX_HCAS];

// Stores the names of the HCAs in the first contexts. Returns the number of HCAs, or a negative status if none is
// found.
int32_t ats_get_hcas_names()
{
    const int n_hcas = kq_list_hcas(hca_names, ATS_MAX_HCAS);
    if (n_hcas <= 0) {
        ATS_ERROR("kq_list_hcas() failed with n_hcas=%d\n", n_hcas);
        return kq_return_err_general;
    }
    for (int i = 0; i < n_hcas; ++i) ats_cntx[i].hca_name = hca_names[i];
    return n_hcas;
}

int32_t init_contexts()
{
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        ats_context_t* ats = &ats_cntx[i];
        ATS_TRACE_AS("ats_module_init", ZR_DEBUG, "init ats for hca %s\n", ats->hca_name.name);
        const int32_t sa_only = i > 0; // only the first HCA serves IBAT and UCM
        if (ats_init(ats, ats_attach_ibat, sa_only) < 0) {
            ATS_TRACE_AS("ats_module_init", ZR_ERROR, "ATS init error  %s\n", ats->hca_name.name);
            ats_stop();
            return -EK_NXIO;
        }
        ATS_TRACE_AS("ats_module_init", ZR_DEBUG, "hca %d name is %s\n\n", i, ats->hca_name.name);
    }
    return 0;
}

int32_t create_control_file()
{
    proc_dir_entry* entry = create_proc_entry(control_file, control_file_mode);
    if (!entry) {
        ats_stop();
        ATS_TRACE_AS("ats_module_init", ZR_ERROR, "Error creating /proc entry.\n");
        return -EK_NOMEM;
    }
    entry->data = nullptr;
    entry->owner = THIS_MODULE;
    entry->read_proc = ats_proc_read;
    entry->write_proc = ats_proc_write;
    return 0;
}

void remove_version_and_trace()
{
    module_version_exit(module_name);
    zr_logger_exit(ATS_log_rep_h);
}

// The entry point of the module. Returns 0, -EK_NXIO if an HCA did not start, or -EK_NOMEM if the control file could
// not be created.
int ats_module_init()
{
    zr_logger_init(registry_key, &ATS_trace_level, &ATS_log_rep_h);
    ATS_DEBUG("ats_attach_ibat is %d\n", ats_attach_ibat);
    // If this call fails, only the file "version" is missing.
    (void)module_version_init(module_name, module_version, version_tag);
    ats_n_hcas = ats_get_hcas_names();
    ATS_DEBUG("ats_module_init - got %d hcas\n", ats_n_hcas);

    int32_t ret = init_contexts();
    if (ret == 0) ret = create_control_file();
    if (ret != 0) {
        remove_version_and_trace();
        return ret;
    }
    inter_module_register(set_ip_addrs_name, THIS_MODULE, reinterpret_cast<const void*>(&ats_sa_set_ip_addrs));
    start_verification(ats_n_hcas);
    return 0;
}

void ats_module_exit()
{
    inter_module_unregister(set_ip_addrs_name);
    end_verification(ats_n_hcas);
    ats_stop();
    remove_proc_entry(control_file);
    remove_version_and_trace();
    printk("ATS - module stopped \n");
}

} // namespace

kernel_module_t this_module = {
    .name = module_name,
    .description = "IB Address Translation Service",
    .init = ats_module_init,
    .exit = ats_module_exit,
    .parameters = parameters,
    .parameter_count = static_cast<int32_t>(std::size(parameters)),
    .logger_level = &logger_trace_level,
};

ats_context_t* ats_find_context(kq_hca_h_t hca)
{
    ATS_DEBUG("looking for hca %p\n", static_cast<void*>(hca));
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        if (ats_cntx[i].hca != hca) continue;
        ATS_DEBUG("found hca=%p  idx=%d\n", static_cast<void*>(hca), i);
        return &ats_cntx[i];
    }
    ATS_ERROR("failed - hca %p\n", static_cast<void*>(hca));
    return nullptr;
}

int32_t ats_sa_set_hostname(const char* host_name)
{
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        ATS_DEBUG("update hostname hca=%p  host_name=%s\n", static_cast<void*>(ats_cntx[i].hca),
                  host_name ? host_name : "(null)");
        if (const int32_t ret = ats_sa_update_hostname(&ats_cntx[i], host_name); ret != 0) {
            ATS_DEBUG("failed\n");
            return ret;
        }
    }
    return 0;
}

int32_t ats_sa_set_ip_addrs(uint32_t port_ipaddr)
{
    for (int32_t i = 0; i < ats_n_hcas; ++i) {
        ATS_DEBUG("update ipaddr hca=%p \n", static_cast<void*>(ats_cntx[i].hca));
        if (const int32_t ret = ats_sa_update_ip_addrs(&ats_cntx[i], port_ipaddr); ret != 0) {
            ATS_DEBUG("failed\n");
            return ret;
        }
    }
    return 0;
}

int32_t ats_sa_set_ip_addrs_str(const char* ip_add_str)
{
    if (!ip_add_str) return -1;
    uint32_t ip;
    if (ats_parseipstr(ip_add_str, &ip) != ibat_stat_ok) {
        printk("ATS - can't parse ip addr %s\n", ip_add_str);
        return -1;
    }
    return ats_sa_set_ip_addrs(ip);
}

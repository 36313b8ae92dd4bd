// Loads and unloads modules: a small one, "probe", and others that the loader must refuse. Tests parameters, errors,
// use during the load and the unloading, and what a module leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/exec/print-capture.h"
#include "host/world/module-folder.h"
#include "kernel/errno.h"
#include "kernel/memory.h"
#include "kernel/module.h"
#include "kernel/proc.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

const std::string module_folder = world::default_module_folder();
const std::string probe = module_folder + "/probe.so";

constexpr const char* valid_parameters =
    "; valid are text (text), number (whole number), result (whole number), start_ticks (whole number), "
    "leak_bytes (whole number), forget (whole number)";

// Calls a function that the probe exports.
template <class result_t>
result_t call(kernel::machine& machine, const char* symbol)
{
    return reinterpret_cast<result_t (*)()>(machine.modules.symbol("probe", symbol))();
}

ats::error error_of(const ats::result<>& result)
{
    return result ? ats::error("no error") : result.error();
}

struct loading : testing::Test, one_machine {
    void expect_nothing_left()
    {
        EXPECT_THAT(host.modules.loaded(), IsEmpty());
        EXPECT_THAT(host.inter_modules.names(), IsEmpty());
        std::vector<kernel::proc_listing> entries;
        EXPECT_EQ(host.proc.list("", &entries), 0);
        EXPECT_TRUE(entries.empty());
    }
};

TEST_F(loading, sets_parameters_as_they_are_written)
{
    struct {
        const char* parameters;
        const char* text;
        int number;
    } const cases[] = {
        {"", "default", 7},
        {"text=word number=-2147483648", "word", INT32_MIN},
        {"  number=2147483647\ttext=\"two words\"\n", "two words", INT32_MAX},
        {"text=\"\" number=\"12\"", "", 12},
        {"text= number=0", "", 0},
        {"text=a=b", "a=b", 7},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.parameters);
        const ats::result<> result = host.modules.insmod(probe, each.parameters);
        ASSERT_TRUE(result) << result.error().text;
        EXPECT_STREQ(call<const char*>(host, "probe_text"), each.text);
        EXPECT_EQ(call<int>(host, "probe_number"), each.number);
        EXPECT_TRUE(host.modules.rmmod("probe"));
    }
}

TEST_F(loading, refuses_malformed_parameters_and_says_what_is_valid)
{
    const std::pair<const char*, const char*> cases[] = {
        {"speed=1", "unknown parameter 'speed'"},
        {"number", "'number' is not a parameter: write name=value"},
        {"number =1", "'number' is not a parameter: write name=value"},
        {"number=1 number=2", "parameter 'number' is given twice"},
        {"text=\"open", "the value of 'text' lacks its closing quotation mark"},
        {"text=\"a\"number=1", "a blank is missing after the value of 'text'"},
        {"number=2147483648", "'2147483648' is not a value for 'number': write a whole decimal number of 32 bits"},
        {"number=0x10", "'0x10' is not a value for 'number': write a whole decimal number of 32 bits"},
        {"number=", "'' is not a value for 'number': write a whole decimal number of 32 bits"},
        {"number=\" 1\"", "' 1' is not a value for 'number': write a whole decimal number of 32 bits"},
    };
    for (const auto& [parameters, error] : cases) {
        const ats::result<> result = host.modules.insmod(probe, parameters);
        EXPECT_EQ(error_of(result).kind, ats::error_kind::invalid) << parameters;
        EXPECT_EQ(error_of(result).text, "insmod probe: " + std::string(error) + valid_parameters);
    }
    expect_nothing_left();
}

TEST_F(loading, refuses_files_that_are_not_modules_and_says_what_to_do)
{
    const std::string fifo = testing::TempDir() + "fifo-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string misfit = module_folder + "/misfit-";
    const auto misfit_has = [&](const std::string& kind, const std::string& fault) {
        return "insmod: " + misfit + kind + ".so does not fit this kernel: its 'this_module' has " + fault;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"/nowhere/ats.so",
         "insmod: no module image at /nowhere/ats.so (No such file or directory): build it or give its path"},
        {"/proc/self/cmdline", "insmod: /proc/self/cmdline cannot be mapped: "},
        {module_folder, "insmod: no module image at " + module_folder + " (it is not a regular file)"},
        {fifo, "insmod: no module image at " + fifo +
                   " (it is not a regular file)"}, // has no writer: the loader must not wait for one
        {misfit + "RECORD_SIZE.so", misfit_has("RECORD_SIZE", "4 bytes instead of 64")},
        {misfit + "RECORD_VERSION.so", misfit_has("RECORD_VERSION", "version 1 instead of 2")},
        {misfit + "NO_INIT.so", misfit_has("NO_INIT", "no init function")},
        {misfit + "NO_EXIT.so", misfit_has("NO_EXIT", "no exit function")},
    };
    for (const auto& [path, error] : cases) {
        const ats::result<> result = host.modules.insmod(path);
        EXPECT_THAT(error_of(result).text, StartsWith(error));
    }
    unlink(fifo.c_str());
    ASSERT_TRUE(host.modules.insmod(probe));
    const ats::result<> again = host.modules.insmod(probe);
    EXPECT_EQ(error_of(again).kind, ats::error_kind::exists);
    EXPECT_EQ(error_of(again).text, "insmod probe: it is loaded already; unload it first");
    EXPECT_TRUE(host.modules.rmmod("probe"));
    EXPECT_EQ(error_of(host.modules.rmmod("probe")).kind, ats::error_kind::not_found);
}

TEST_F(loading, finds_only_symbols_of_the_module_and_keeps_it_loaded_while_one_is_held)
{
    ASSERT_TRUE(host.modules.insmod(probe));
    EXPECT_EQ(host.modules.symbol("probe", "printf"), nullptr) << "the C library has this symbol, not the module";
    EXPECT_EQ(host.modules.symbol("other", "probe_text"), nullptr);
    {
        const kernel::held_symbol text(host.modules, "probe", "probe_text");
        ASSERT_TRUE(text);
        EXPECT_EQ(error_of(host.modules.rmmod("probe")).kind, ats::error_kind::busy);
    }
    EXPECT_TRUE(host.modules.rmmod("probe"));
    EXPECT_FALSE(kernel::held_symbol(host.modules, "probe", "probe_text"));
}

TEST_F(loading, unloading_is_refused_while_a_name_of_the_module_is_held)
{
    ASSERT_TRUE(host.modules.insmod(probe));
    run([&] {
        EXPECT_EQ(inter_module_get("nobody"), nullptr);
        EXPECT_NE(inter_module_get("probe_call"), nullptr);
        EXPECT_NE(inter_module_get("probe_call"), nullptr);
    });
    EXPECT_EQ(host.inter_modules.references("probe_call"), 2);
    const ats::result<> refused = host.modules.rmmod("probe");
    EXPECT_EQ(error_of(refused).kind, ats::error_kind::busy);
    EXPECT_EQ(error_of(refused).text, "rmmod probe: it is in use (2 references); unload its users first");
    run([] { inter_module_put("probe_call"); });
    EXPECT_DEATH(run([] { inter_module_unregister("probe_call"); }), "probe_call has 1 references");
    run([] { inter_module_put("probe_call"); });
    EXPECT_DEATH(run([] { inter_module_put("probe_call"); }), "inter_module_put: probe_call is not held");
    EXPECT_DEATH(run([] { inter_module_register("probe_call", nullptr, nullptr); }), "the name probe_call is in use");
    EXPECT_TRUE(host.modules.rmmod("probe"));
}

TEST_F(loading, unloading_waits_for_a_handler_and_lets_no_new_one_in)
{
    ASSERT_TRUE(host.modules.insmod(probe));
    std::vector<int> results;
    const auto write = [&] { results.push_back(host.proc.write("probe", "early")); };
    at(0, "writer", write); // the write takes 50 ticks
    at(10, "unloader", [&] {
        EXPECT_TRUE(host.modules.rmmod("probe"));
        EXPECT_EQ(get_jiffies(), 50u);
    });
    at(20, "late writer", write);
    at(20, "late caller", [] { EXPECT_EQ(inter_module_get("probe_call"), nullptr); });
    at(20, "second unloader",
       [&] { EXPECT_EQ(error_of(host.modules.rmmod("probe")).kind, ats::error_kind::not_found); });
    finish();
    EXPECT_THAT(results, ElementsAre(-EK_NOENT, 5));
    EXPECT_EQ(host.log.raw(), "<6>probe wrote early\n<6>probe stopped\n");
    expect_nothing_left();
}

TEST_F(loading, while_a_module_starts_its_names_can_be_used_but_not_its_symbols_and_unfinished_entries)
{
    at(0, "loader", [&] { EXPECT_TRUE(host.modules.insmod(probe, "start_ticks=30")); });
    at(10, "user", [&] {
        EXPECT_NE(inter_module_get("probe_call"), nullptr);
        inter_module_put("probe_call");
        std::string text;
        EXPECT_EQ(host.proc.read("probe", 0, 100, &text), -EK_INVAL) << "it has no handler yet";
        EXPECT_FALSE(kernel::held_symbol(host.modules, "probe", "probe_text"));
        EXPECT_EQ(error_of(host.modules.rmmod("probe")).text, "rmmod probe: it is still starting; try again later");
    });
    at(40, "reader", [&] {
        std::string text;
        EXPECT_EQ(host.proc.read("probe", 0, 100, &text), 10);
    });
    finish();
    EXPECT_TRUE(host.modules.rmmod("probe"));
}

TEST_F(loading, a_failed_start_leaves_nothing)
{
    const ats::result<> result = host.modules.insmod(probe, "result=-6");
    EXPECT_EQ(error_of(result).kind, ats::error_kind::failed);
    EXPECT_EQ(error_of(result).text,
              "insmod probe: start-up failed with -6 (No such device or address); the kernel log says why");
    EXPECT_EQ(error_of(host.modules.insmod(probe, "result=-22")).kind, ats::error_kind::invalid);
    expect_nothing_left();
    EXPECT_TRUE(host.modules.insmod(probe, "result=1")) << "only a negative number is a failure";
    EXPECT_TRUE(host.modules.rmmod("probe"));
}

TEST_F(loading, a_module_gets_the_level_of_the_logger)
{
    const auto level_in_module = [&] {
        return static_cast<kernel_module_t*>(host.modules.symbol("probe", "this_module"))->logger_level->load();
    };
    host.modules.set_logger_level(2);
    ASSERT_TRUE(host.modules.insmod(probe));
    EXPECT_EQ(level_in_module(), 2);
    host.modules.set_logger_level(4);
    EXPECT_EQ(level_in_module(), 4);
    EXPECT_EQ(host.modules.logger_level(), 4);
    const auto* record = static_cast<kernel_module_t*>(host.modules.symbol("probe", "this_module"));
    EXPECT_TRUE(host.modules.hold(record));
    host.modules.release(record);
    EXPECT_DEATH(host.modules.release(record), "a reference on a module is returned but was never taken");
    EXPECT_TRUE(host.modules.rmmod("probe"));
    EXPECT_FALSE(host.modules.is_loaded("probe"));
    EXPECT_FALSE(host.modules.hold(record));
    EXPECT_TRUE(host.modules.hold(nullptr)) << "the kernel";
}

TEST_F(loading, finds_what_a_module_leaves_behind)
{
    EXPECT_DEATH(
        {
            host.modules.insmod(probe, "forget=1");
            host.modules.rmmod("probe");
        },
        "probe is unloaded without withdrawing the inter-module name probe_call");
    EXPECT_DEATH(
        {
            host.modules.insmod(probe, "forget=3");
            host.modules.rmmod("probe");
        },
        "probe is unloaded without removing the /proc entry probe");
    EXPECT_DEATH(
        {
            kernel::machine gone(*sim, "node2");
            gone.modules.insmod(probe);
        },
        "machine node2 is destroyed while probe is loaded");

    void* own = nullptr; // of this program
    run([&] { own = kmalloc(5, GFP_KERNEL); });
    ASSERT_TRUE(host.modules.insmod(probe, "leak_bytes=33"));
    void* block = host.memory.allocate(7, host.modules.symbol("probe", "probe_text"));
    EXPECT_TRUE(host.modules.rmmod("probe"));
    EXPECT_THAT(host.memory.leaks(),
                ElementsAre(testing::Not(HasSubstr("probe+")), StartsWith("33 bytes allocated by probe+0x"),
                            StartsWith("7 bytes allocated by probe+0x")));
    EXPECT_TRUE(host.memory.release(block));
    run([&] { block = kmalloc(7, GFP_KERNEL); }); // usually at the same address
    EXPECT_THAT(host.memory.leaks().back(), testing::Not(HasSubstr("probe+")));
    for (const void* each : {own, block}) run([&] { kfree(each); });
}

} // namespace

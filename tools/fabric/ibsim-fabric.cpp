#include "tools/fabric/ibsim-fabric.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <glob.h>
#include <stdexcept>
#include <unistd.h>

namespace fabric_tools
{

namespace
{

namespace files = std::filesystem;

// For programs with the address sanitizer, which would end them for two reasons. ibsim's library is loaded before the
// sanitizer's library. And when ibsim's library reads a datagram, it copies more bytes than it has allocated.
const char* const sanitizer_options = "ASAN_OPTIONS=verify_asan_link_order=0:replace_intrin=0";

std::string find_program(const std::string& name)
{
    for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/"})
        if (access((folder + name).c_str(), X_OK) == 0) return folder + name;
    return "";
}

void write_net(const std::string& path, const std::vector<std::string>& nodes)
{
    std::ofstream net(path);
    net << "Switch " << nodes.size() + 1 << " \"switch\"\n";
    for (size_t i = 0; i < nodes.size(); ++i) net << "[" << i + 1 << "] \"" << nodes[i] << "\"[1]\n";
    for (size_t i = 0; i < nodes.size(); ++i)
        net << "\nHca 1 \"" << nodes[i] << "\"\n[1] \"switch\"[" << i + 1 << "]\n";
}

} // namespace

std::string ibsim_fabric::library()
{
    glob_t paths;
    std::string path;
    if (glob("/usr/lib/*/umad2sim/libumad2sim.so", 0, nullptr, &paths) == 0) path = paths.gl_pathv[0];
    globfree(&paths);
    return path;
}

ats::result<> ibsim_fabric::check_programs()
{
    if (find_program("ibsim").empty() || library().empty()) return ats::fail("ibsim is missing: install ibsim-utils");
    if (find_program("opensm").empty()) return ats::fail("OpenSM is missing: install opensm");
    if (find_program("saquery").empty()) return ats::fail("saquery is missing: install infiniband-diags");
    return {};
}

ibsim_fabric::own_folder::own_folder()
{
    std::string name = files::temp_directory_path() / "ats-fabric-XXXXXX";
    if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a folder like " + name);
    path = name;
}

ibsim_fabric::own_folder::~own_folder()
{
    std::error_code error; // ignored, because a destructor cannot report it
    if (std::getenv("ATS_KEEP_FABRIC"))
        std::fprintf(stderr, "kept: %s\n", path.c_str());
    else
        files::remove_all(path, error);
}

ibsim_fabric::ibsim_fabric(const std::vector<std::string>& nodes, const std::string& preload) : preload_(preload)
{
    // Each fabric has its own socket name, so many fabrics can run side by side.
    static std::atomic<int> count = 0;
    socket_name_ = "ats" + std::to_string(getpid()) + "." + std::to_string(++count);
    write_net(folder() + "/net", nodes);
    std::vector<std::string> variables = {"IBSIM_SOCKNAME=" + socket_name_};
    if (!preload_.empty()) variables.push_back("LD_PRELOAD=" + preload_);
    ibsim_ = std::make_unique<process>(command{.arguments = {find_program("ibsim"), "-s", folder() + "/net"},
                                               .environment = variables,
                                               .directory = folder(),
                                               .output = folder() + "/ibsim.out"});
    if (!ibsim_->wait_line("Network simulator ready"))
        throw std::runtime_error("ibsim does not start: " + ibsim_->output());
}

std::unique_ptr<process> ibsim_fabric::start(const std::string& node, const std::string& name,
                                             const std::vector<std::string>& arguments,
                                             const std::vector<std::string>& environment)
{
    // ibsim's library creates a folder in the working folder of a program. Therefore each program has its own.
    const std::string own_folder = new_file(name);
    files::create_directory(own_folder);
    std::vector<std::string> variables = environment;
    variables.insert(variables.end(), {"IBSIM_SOCKNAME=" + socket_name_, "SIM_HOST=" + node,
                                       "LD_PRELOAD=" + (preload_.empty() ? "" : preload_ + ":") + library(),
                                       sanitizer_options, "OSM_TMP_DIR=" + own_folder, "OSM_CACHE_DIR=" + own_folder});
    return std::make_unique<process>(command{
        .arguments = arguments, .environment = variables, .directory = own_folder, .output = own_folder + "/out"});
}

std::string ibsim_fabric::run(const std::string& node, const std::vector<std::string>& arguments)
{
    const auto program = start(node, "tool", arguments);
    if (!program->wait_end(60s)) kill(*program);
    return program->output();
}

std::unique_ptr<process> ibsim_fabric::start_sm(const std::string& node, const sm_options& options)
{
    const std::string settings = folder() + "/" + node + "-" + std::to_string(files_) + ".conf";
    std::ofstream(settings) << "sm_priority " << options.priority << "\n"
                            << "sminfo_polling_timeout 200\npolling_retry_number 2\n"
                            << options.settings << "\n";
    return start(node, "sm", {find_program("opensm"), "-F", settings, "-f", "-"});
}

bool ibsim_fabric::wait_master(process& sm, duration longest)
{
    return sm.wait_line("SUBNET UP", longest).has_value();
}

void ibsim_fabric::kill(process& program)
{
    console("Attached");
    if (const auto line = ibsim_->wait_line(": pid " + std::to_string(program.pid()) + " connected", 2s)) {
        const size_t number = line->find("Client ") + 7;
        console("X " + line->substr(number, line->find(':') - number));
        console("Verbose"); // ibsim answers in order, so after this answer the program is detached
        ibsim_->wait_line("verbose level");
    }
    program.signal(SIGKILL);
    program.wait_end();
}

void ibsim_fabric::console(const std::string& line)
{
    ibsim_->write_line(line);
}

void ibsim_fabric::lose(const std::string& node, int percent)
{
    console("Error \"" + node + "\"[1] " + std::to_string(percent));
}

} // namespace fabric_tools

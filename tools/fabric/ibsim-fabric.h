// A simulated fabric for real programs: ibsim in a folder of its own, one switch, and nodes. A program with ibsim's
// library preloaded runs on a node. The destructor ends all programs and removes the folder.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/result.h"
#include "tools/fabric/process.h"

namespace fabric_tools
{

// The maximum number of programs that ibsim supports at a time: SMs, hosts and tools together.
constexpr int most_programs = 10;

struct sm_options {
    int priority = 0;
    std::string settings = {}; // more lines for its configuration file
};

class ibsim_fabric
{
  public:
    // Fails if a needed program is not installed.
    static ats::result<> check_programs();

    // The path of ibsim's library, for preloading.
    static std::string library();

    // Connects the nodes to one switch. ibsim and all programs also preload the library `preload`, unless it is "".
    // Throws std::runtime_error if ibsim does not start.
    explicit ibsim_fabric(const std::vector<std::string>& nodes, const std::string& preload = "");
    ibsim_fabric(const ibsim_fabric&) = delete;
    ibsim_fabric& operator=(const ibsim_fabric&) = delete;

    // Starts an OpenSM on the node. wait_master() waits until the subnet is up with this OpenSM as its master.
    std::unique_ptr<process> start_sm(const std::string& node, const sm_options& options = {});
    static bool wait_master(process& sm, duration longest = 20s);

    // Starts a program on the node, in a new folder for its output. The folder's name contains `name`. `environment`
    // comes before the variables that connect the program to the fabric.
    std::unique_ptr<process> start(const std::string& node, const std::string& name,
                                   const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& environment = {});

    // Runs a program on the node, for at most one minute. Returns its output.
    std::string run(const std::string& node, const std::vector<std::string>& arguments);

    // Kills a program without warning. Detaches it from ibsim first, for two reasons. ibsim would keep its place for
    // ever. And a request that reaches a dying program gets neither an answer nor a time-out, so an OpenSM that has
    // sent it would hang.
    void kill(process& program);

    // Ends ibsim. The whole fabric becomes silent.
    void kill_simulator() { ibsim_->stop(); }

    // Sends a command to ibsim's console.
    void console(const std::string& line);
    void unplug(const std::string& node) { console("Unlink \"" + node + "\"[1]"); }
    void plug(const std::string& node) { console("ReLink \"" + node + "\"[1]"); }

    // Loses this share of the packets that reach the node over its link. SMPs of the node to itself are not lost.
    void lose(const std::string& node, int percent);

    const std::string& folder() const { return folder_.path; }
    std::string output() const { return ibsim_->output(); } // of ibsim itself

    // A new path in the folder.
    std::string new_file(const std::string& name) { return folder() + "/" + name + "-" + std::to_string(++files_); }

  private:
    // The destructor removes it, also after an interrupted construction. It is kept if $ATS_KEEP_FABRIC is set.
    struct own_folder {
        own_folder();
        ~own_folder();
        own_folder(const own_folder&) = delete;
        own_folder& operator=(const own_folder&) = delete;
        std::string path;
    };

    const std::string preload_;
    own_folder folder_; // before the programs: removed after the programs in it have ended
    std::string socket_name_;
    std::unique_ptr<process> ibsim_;
    int files_ = 0; // number of names from new_file()
};

} // namespace fabric_tools

// A simulated fabric for real programs: ibsim in its own folder, one switch, and nodes. start() runs a
// program on a node: it preloads ibsim's library into the program. The destructor ends ibsim and removes the folder.
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
    std::string settings = {}; // more lines for OpenSM's configuration file
};

class ibsim_fabric
{
  public:
    // Returns an error if a needed program is not installed.
    static ats::result<> check_programs();

    // Returns the path of ibsim's library, for LD_PRELOAD, or "" if the library is not installed.
    static std::string library();

    // Connects the nodes to one switch. ibsim and all programs also preload the library `preload`, unless it is "".
    // Throws std::runtime_error if ibsim does not start.
    explicit ibsim_fabric(const std::vector<std::string>& nodes, const std::string& preload = "");
    ibsim_fabric(const ibsim_fabric&) = delete;
    ibsim_fabric& operator=(const ibsim_fabric&) = delete;

    // Starts an OpenSM on the node. wait_master() waits until this OpenSM is the master and the subnet is up. It
    // returns false after the time limit.
    std::unique_ptr<process> start_sm(const std::string& node, const sm_options& options = {});
    static bool wait_master(process& sm, duration longest = 20s);

    // Starts a program on the node, in a new folder for its output. The folder's name contains `name`. If `environment`
    // sets a variable that this function also sets, the value from `environment` counts.
    std::unique_ptr<process> start(const std::string& node, const std::string& name,
                                   const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& environment = {});

    // Runs a program on the node, for at most one minute. Returns its output.
    std::string run(const std::string& node, const std::vector<std::string>& arguments);

    // Kills a program (SIGKILL). Detaches the program from ibsim first. Otherwise ibsim would count it for ever as one
    // of its few programs. Also, ibsim would deliver requests to the dying program, and an OpenSM that waits for the
    // answer would hang.
    void kill(process& program);

    // Ends ibsim. From then on, no program on the fabric receives anything.
    void kill_simulator() { ibsim_->stop(); }

    // Sends a command to ibsim's console.
    void console(const std::string& line);
    void unplug(const std::string& node) { console("Unlink \"" + node + "\"[1]"); }
    void plug(const std::string& node) { console("ReLink \"" + node + "\"[1]"); }

    // From now on, loses this share of the packets that arrive at the node; 0 ends the loss. SMPs of the node to itself
    // are lost too.
    void lose(const std::string& node, int percent);

    const std::string& folder() const { return folder_.path; }
    std::string output() const { return ibsim_->output(); } // what ibsim has printed

    // Returns a new path in the folder.
    std::string new_file(const std::string& name) { return folder() + "/" + name + "-" + std::to_string(++files_); }

  private:
    // A temporary folder. The destructor removes the folder, also if the constructor of ibsim_fabric is interrupted. If
    // $ATS_KEEP_FABRIC is set, the folder is kept.
    struct own_folder {
        own_folder();
        ~own_folder();
        own_folder(const own_folder&) = delete;
        own_folder& operator=(const own_folder&) = delete;
        std::string path;
    };

    const std::string preload_;
    own_folder folder_; // declared before ibsim_, so it is removed after ibsim has ended
    std::string socket_name_;
    std::unique_ptr<process> ibsim_;
    int files_ = 0; // number of names from new_file()
};

} // namespace fabric_tools

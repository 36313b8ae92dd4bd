// A simulated fabric for real programs: ibsim in a folder of its own, one switch, and nodes that programs are put on
// by preloading ibsim's library. Everything ends, and the folder goes, with the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/fabric/process.h"

namespace fabric_tools
{

// ibsim takes no more programs at a time: SMs, hosts and tools together.
constexpr int most_programs = 10;

struct sm_options {
    int priority = 0;
    std::string settings = {}; // more lines for its configuration file
};

class ibsim_fabric
{
  public:
    // Empty, or what is missing here to run one.
    static std::string missing();

    // What puts a program on a fabric when it is preloaded.
    static std::string library();

    // The nodes are on one switch. Throws std::runtime_error when ibsim does not start.
    explicit ibsim_fabric(const std::vector<std::string>& nodes);
    ibsim_fabric(const ibsim_fabric&) = delete;
    ibsim_fabric& operator=(const ibsim_fabric&) = delete;

    // An OpenSM on the node, and whether it has brought the subnet up as its master.
    std::unique_ptr<process> start_sm(const std::string& node, const sm_options& options = {});
    static bool wait_master(process& sm, duration longest = 20s);

    // A program on the node. Its output is in a file of the folder called after `name`.
    std::unique_ptr<process> start(const std::string& node, const std::string& name,
                                   const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& environment = {});

    // Runs it to its end, for no longer than a minute; what it wrote.
    std::string run(const std::string& node, const std::vector<std::string>& arguments);

    // Kills a program without warning. ibsim, which would keep its place for ever, is told before: a request that
    // reached a program as it dies would get no answer and no time-out either, and an OpenSM that sent it hangs.
    void kill(process& program);

    // The whole fabric falls silent.
    void die() { ibsim_->stop(); }

    // A command of ibsim's console.
    void console(const std::string& line);
    void unplug(const std::string& node) { console("Unlink \"" + node + "\"[1]"); }
    void plug(const std::string& node) { console("ReLink \"" + node + "\"[1]"); }

    // Of what reaches the node over its link, SMPs to itself excepted, so much is lost.
    void lose(const std::string& node, int percent);

    const std::string& folder() const { return folder_.path; }
    std::string output() const { return ibsim_->output(); } // of ibsim

    // The name of a file in it that nothing else has.
    std::string new_file(const std::string& name) { return folder() + "/" + name + "-" + std::to_string(++started_); }

  private:
    // Goes with the object, and also when its construction is interrupted. $ATS_KEEP_FABRIC keeps it.
    struct own_folder {
        own_folder();
        ~own_folder();
        own_folder(const own_folder&) = delete;
        own_folder& operator=(const own_folder&) = delete;
        std::string path;
    };

    own_folder folder_; // the programs in it end before it goes
    std::string socket_name_;
    std::unique_ptr<process> ibsim_;
    int started_ = 0;
};

} // namespace fabric_tools

// Asks the SA of a real fabric about host names. Keeps its GSI clients open for the next questions, because GSI
// remembers each client until its machine ends.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/world/sa-questions.h"

namespace cli
{

class name_questions
{
  public:
    // Sends the request through `machine`, which must be the same in all calls. Returns the SA's answer, or nothing if
    // the SA does not answer within a second. Fails if no port is active. Any thread that may wait.
    ats::result<std::optional<sa_mad_v2_t>> ask(kernel::machine& machine, const sa_mad_v2_t& request);

    // Leaves the SA's class. Call it before the machine ends, when no call of ask() runs any more.
    void close();

  private:
    std::unique_ptr<world::sa_questions> take_idle_client();

    std::mutex mutex_; // guards idle_clients_
    std::vector<std::unique_ptr<world::sa_questions>> idle_clients_;
};

} // namespace cli

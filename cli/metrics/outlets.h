// Publishes a service's metrics in two ways, which are called outlets: in a file for node_exporter's textfile
// collector, and over HTTP. If an outlet fails, the administrator gets one line, and another line when its error
// changes or ends. The service continues, and tries again every 15 seconds.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cli/metrics/http.h"
#include "cli/metrics/textfile.h"
#include "cli/service/world-config.h"

namespace metrics
{

class outlets
{
  public:
    using print_t = std::function<void(const std::string& line)>; // prints a line for the administrator
    using text_t = std::function<std::string()>; // makes the text of the metrics; may run in any thread

    // Starts a thread if an outlet is configured. Throws exec::shortage if the thread cannot be created.
    outlets(const cli::metrics_config& config, text_t text, print_t print);
    ~outlets();
    outlets(const outlets&) = delete;
    outlets& operator=(const outlets&) = delete;

  private:
    // The error of an outlet's last try, or "". `name` is the beginning of the lines about it.
    struct outlet {
        const char* name;
        std::string error = {};
    };
    void work();
    void note(outlet& outlet, const ats::result<>& result);

    const cli::metrics_config config_;
    const text_t text_;
    const print_t print_;
    outlet file_outlet_{"the metrics file is not written"};
    outlet http_outlet_{"metrics are not served over HTTP"};
    textfile file_;
    http http_;
    std::mutex mutex_;               // guards is_stopping_
    std::condition_variable change_; // notified when is_stopping_ becomes true
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace metrics

// The state of a service as metrics, in the text format of Prometheus. docs/metrics.md lists them. Their names, types
// and labels are a contract.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "cli/service/running-hosts.h"

namespace metrics
{

using label = std::pair<const char*, std::string>;

struct sample {
    std::vector<label> labels;
    double value;
    const char* suffix = ""; // appended to the family's name: "_bucket", "_sum" or "_count" of a histogram
};

enum class type { gauge, counter, histogram };

// The samples with one name.
struct family {
    const char* name;
    const char* help;
    metrics::type type;
    std::vector<sample> samples = {};
};

// Collects all present metrics of the service. Reads ports, which may sleep. Any thread outside of the machines;
// several threads at a time.
std::vector<family> collect(cli::running_hosts& hosts);

// Formats HELP, TYPE and samples of each family that has samples. Pure.
std::string text_of(const std::vector<family>& families);

} // namespace metrics

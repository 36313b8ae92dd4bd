// Collects the metrics of a service, and writes them in the text format of Prometheus. docs/metrics.md lists the
// metrics. Users rely on their names, types and labels.
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

// A metric and its samples. Prometheus calls this a family.
struct family {
    const char* name;
    const char* help;
    metrics::type type;
    std::vector<sample> samples = {};
};

// Collects the current values of all metrics. Reads ports, and may therefore sleep. Any thread that is not a task of a
// machine may call this function, also several threads at the same time.
std::vector<family> collect(cli::running_hosts& hosts);

// Formats the HELP line, the TYPE line and the samples of each family. Leaves out families without samples. Pure.
std::string text_of(const std::vector<family>& families);

} // namespace metrics

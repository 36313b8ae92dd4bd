#include "bench/figures/process-usage.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace
{

// Returns the number of KiB in the line "name:  123 kB" of a file in /proc.
double kib_in(const char* path, const std::string& name)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
    throw std::runtime_error(std::string(path) + " has no line " + name);
}

} // namespace

double memory_bytes()
{
    return 1024 * (kib_in("/proc/self/smaps_rollup", "Pss") + kib_in("/proc/self/status", "VmPTE"));
}

size_t mapping_count()
{
    std::ifstream maps("/proc/self/maps");
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(maps), {}, '\n'));
}

double processor_seconds()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Counts the requests that the clients of an HCA send to SAs by attribute, and the SAs' answers by status.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/fabric/fabric.h"

namespace stack
{

// The kinds of requests, in the order of sa_request_texts.
enum class sa_request { set_service, get_service, delete_service, get_path, other };
constexpr size_t sa_request_count = 5;

// The number of statuses, in the order of sa_status_texts: 0, busy, the codes of IBA 15.4.2 from 0x0100 on, and any
// other error.
constexpr size_t sa_status_count = 10;

struct sa_kind_text {
    const char* method;
    const char* attribute;
};
extern const std::array<sa_kind_text, sa_request_count> sa_request_texts;
extern const std::array<const char*, sa_status_count> sa_status_texts;

struct sa_counts {
    std::array<uint64_t, sa_request_count> requests{};
    std::array<uint64_t, sa_status_count> answers{};
};

// Any context may call it. The MADs are in wire order; MADs of other classes are not counted.
class sa_traffic
{
  public:
    void count_request(const fabric::mad_bytes& mad);
    void count_answer(const fabric::mad_bytes& mad);

    sa_counts counts() const;

  private:
    std::array<std::atomic<uint64_t>, sa_request_count> requests_{};
    std::array<std::atomic<uint64_t>, sa_status_count> answers_{};
};

} // namespace stack

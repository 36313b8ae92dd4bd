// Counts the requests that the clients of an HCA send to the SA, by method and attribute, and the SA's answers, by
// status.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/fabric/fabric.h"

namespace stack
{

// The kinds of requests that are counted separately. sa_request_texts has the same order.
enum class sa_request { set_service, get_service, delete_service, get_path, other };
constexpr size_t sa_request_count = 5;

// The number of statuses that are counted separately: ok (0), busy, the SA's codes 0x0100 to 0x0700 (IBA 15.2.4), and
// all others together. sa_status_texts has the same order.
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

// Any context may call these functions. MADs are in wire order. MADs of other classes than SubnAdm are not counted.
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

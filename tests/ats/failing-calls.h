// Every platform call of a scenario fails once, one after the other: one loop for all its error paths.
#pragma once

#include "tests/ats/ats-world.h"

// Runs `scenario` with the first failable call failing, then the second, until a run has no failure. The scenario arms
// its host with `n`, disarms it, and returns the name of the call that failed; it checks what must hold itself.
inline void for_every_failing_call(const std::function<std::string(uint64_t n)>& scenario)
{
    for (uint64_t n = 1;; ++n) {
        const std::string failed = scenario(n);
        ASSERT_FALSE(testing::Test::HasFailure()) << "call " << n << ", " << failed;
        if (failed.empty()) {
            EXPECT_GT(n, 2u) << "no failable call was made";
            return;
        }
    }
}

// Runs `body` with the n-th failable call of the host failing; returns its name.
template <class body_t>
std::string with_failing_call(ats_host& host, uint64_t n, const body_t& body)
{
    host.faults().fail_nth(n);
    body();
    const std::string failed = host.faults().failed_call();
    host.faults().disarm();
    return failed;
}

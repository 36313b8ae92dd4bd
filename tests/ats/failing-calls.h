// Repeats a scenario, and lets different kernel calls fail in each run: each call alone, and each call together with
// each later call. In this way, one loop tests the failure of every kernel call.
#pragma once

#include "tests/ats/ats-world.h"

// The calls that fail in one run: the n-th call and, if `gap` is not 0, also the call that comes `gap` calls later.
struct failing_calls {
    uint64_t n;
    uint64_t gap;
};

// The calls that have failed in a run.
struct failed_calls {
    uint64_t count = 0;
    std::string last; // the name of the last of these calls
};

// Lets the first call of `scenario` fail, then the second, and so on until no call is left to fail. Repeats each of
// these runs with a second failure, one call later, two calls later, and so on. The scenario passes its argument to
// with_failing_calls(), checks the result and returns the calls that have failed.
inline void for_every_failing_call(const std::function<failed_calls(failing_calls)>& scenario)
{
    for (failing_calls calls{1, 0};; ++calls.n) {
        failed_calls failures;
        for (calls.gap = 0;; ++calls.gap) {
            failures = scenario(calls);
            ASSERT_FALSE(testing::Test::HasFailure())
                << "call " << calls.n << ", gap " << calls.gap << ", last failure: " << failures.last;
            const uint64_t planned_count = calls.gap == 0 ? 1 : 2;
            if (failures.count < planned_count) break;
        }
        if (failures.count > 0) continue;
        EXPECT_GT(calls.n, 2u) << "the scenario makes no call that can fail";
        return;
    }
}

// Runs `body` while the given calls of the host fail.
template <class body_t>
failed_calls with_failing_calls(ats_host& host, failing_calls calls, const body_t& body)
{
    host.faults().fail_nth(calls.n, calls.gap);
    body();
    const failed_calls failures{host.faults().failures(), host.faults().failed_call()};
    host.faults().disarm();
    return failures;
}

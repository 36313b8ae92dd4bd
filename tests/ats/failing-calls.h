// Makes every kernel call of a scenario fail, one after the other: first alone, then together with each later call. One
// loop tests all error paths of a scenario.
#pragma once

#include "tests/ats/ats-world.h"

// The calls of a run that fail: the n-th one, and the one `gap` calls later unless `gap` is 0.
struct failing_calls {
    uint64_t n;
    uint64_t gap;
};

// The calls that failed.
struct failed_calls {
    uint64_t count = 0;
    std::string last; // the name of the last one
};

// Runs `scenario` with the first call failing, then the second, until a run has no failure. Each of these runs is
// repeated with a second failure at every distance. The scenario passes `calls` to with_failing_calls(), checks the
// result and returns the failures.
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

// Every platform call of a scenario fails once, one after the other, alone and with every other one behind it: one loop
// for all its error paths.
#pragma once

#include "tests/ats/ats-world.h"

// Which calls of a run fail: the n-th, and one so many calls behind it; 0: none.
struct failing_calls {
    uint64_t n;
    uint64_t then_after;
};

// Which did.
struct failed_calls {
    uint64_t count = 0;
    std::string last; // its name
};

// Runs `scenario` with the first failable call failing, then the second, until a run has no failure; and each of those
// with a second failure behind the first, until there is none. The scenario has its host fail and checks what must
// hold.
inline void for_every_failing_call(const std::function<failed_calls(failing_calls)>& scenario)
{
    for (failing_calls which{1, 0};; ++which.n) {
        failed_calls failed;
        which.then_after = 0;
        do {
            failed = scenario(which);
            ASSERT_FALSE(testing::Test::HasFailure())
                << "call " << which.n << " and " << which.then_after << " calls on, " << failed.last;
        } while (failed.count == (which.then_after++ == 0 ? 1u : 2u));
        if (failed.count > 0) continue;
        EXPECT_GT(which.n, 2u) << "no failable call was made";
        return;
    }
}

// Runs `body` with those failable calls of the host failing.
template <class body_t>
failed_calls with_failing_calls(ats_host& host, failing_calls which, const body_t& body)
{
    host.faults().fail_nth(which.n, which.then_after);
    body();
    const failed_calls failed{host.faults().failures(), host.faults().failed_call()};
    host.faults().disarm();
    return failed;
}

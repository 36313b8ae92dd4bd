// A fault that a check has found, with the expected and the actual state for the picture of the violation.
#pragma once

#include <string>

namespace campaign
{

// Both members are empty if the text of the fault says enough.
struct mismatch {
    std::string expected;
    std::string actual;
};

struct found_fault {
    std::string text; // empty if there is no fault
    campaign::mismatch mismatch = {};
};

} // namespace campaign

#pragma once
// What a fuzzer asserts.

#include <cstdio>
#include <cstdlib>

namespace korlo::fuzz
{

/// Ends the process, saying which promise was broken, unless it holds.
inline void Require(bool holds, const char* promise)
{
    if (!holds)
    {
        std::fprintf(stderr, "Broken promise: %s\n", promise);
        std::abort();
    }
}

}  // namespace korlo::fuzz

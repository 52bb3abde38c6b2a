#pragma once
// Tests that have a long form, for when there is time.

#include <cstdlib>

namespace korlo
{

/// True when KORLO_LONG_TESTS is set (docs/testing.md).
inline bool AreTestsLong()
{
    return std::getenv("KORLO_LONG_TESTS") != nullptr;
}

}  // namespace korlo

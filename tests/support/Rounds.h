#pragma once
// How often tests of random input go round.

namespace korlo
{

/// `rounds` in an ordinary build. A fifth of it under a sanitizer and on ARM, where an emulator runs the tests: both
/// are many times slower, and look for what few rounds show as well.
constexpr unsigned int Rounds(unsigned int rounds)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
    return rounds / 5;
#else
    return rounds;
#endif
}

}  // namespace korlo

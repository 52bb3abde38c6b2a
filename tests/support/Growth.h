#pragma once
// By how much the memory of a process may grow in a test.

#include <cstddef>

namespace korlo
{

/// KiB by which a process may grow while it takes memory and frees it again, where `kib` are allowed in an ordinary
/// build. Under a sanitizer half a GiB more, which catches a runaway alone: the address sanitizer keeps 256 MiB of what
/// was freed, the thread sanitizer the history of what was used.
constexpr std::size_t GrowthKiB(std::size_t kib)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return kib + 512 * 1024;
#else
    return kib;
#endif
}

}  // namespace korlo

#pragma once
// A semaphore used as a lock, for a scope.

#include <cstdio>
#include <cstdlib>

#include "korlo/osa/Semaphore.h"

namespace korlo::settings::client
{

/// Holds the send semaphore to the end of the scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class SemAutoLock
{
public:
    SemAutoLock(osa::Semaphore& semaphore, unsigned int timeoutMs) : _semaphore(semaphore)
    {
        _semaphore.Lock(timeoutMs);
    }

    SemAutoLock(const SemAutoLock&) = delete;
    SemAutoLock& operator=(const SemAutoLock&) = delete;

    ~SemAutoLock()
    {
        try
        {
            _semaphore.Release();
        }
        catch (...)
        {
            // Somebody else let it go: two threads may write at once from here on, and no request could be trusted.
            std::fputs("KorloSettingsClientImplMultiThreaded: SemAutoLock: failed to release semaphore!\n", stderr);
            std::abort();
        }
    }

private:
    osa::Semaphore& _semaphore;
};

}  // namespace korlo::settings::client

#include "korlo/core/Stopwatch.h"

namespace korlo::core
{

Stopwatch::Stopwatch(bool start)
{
    if (start)
    {
        _start = std::chrono::steady_clock::now();
    }
}

float Stopwatch::Read() const
{
    if (!_start)
    {
        return 0;
    }
    return std::chrono::duration<float>(std::chrono::steady_clock::now() - *_start).count();
}

}  // namespace korlo::core

#include "korlo/osa/TimeMonotonic.h"

#include <chrono>

namespace korlo::osa
{

void TimeMonotonic(TimeStruct& time)
{
    using namespace std::chrono;
    const auto sinceStart = steady_clock::now().time_since_epoch();
    const auto whole = floor<seconds>(sinceStart);
    time.seconds = whole.count();
    time.nanoseconds = static_cast<std::int32_t>(duration_cast<nanoseconds>(sinceStart - whole).count());
}

}  // namespace korlo::osa

#include "control/UtcTime.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace korlo::daemon
{

std::string UtcText(std::chrono::system_clock::time_point time)
{
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    const auto whole = std::chrono::floor<seconds>(time);
    const auto rest = std::chrono::floor<milliseconds>(time - whole);
    const std::time_t inSeconds = std::chrono::system_clock::to_time_t(whole);
    std::tm parts{};
    ::gmtime_r(&inSeconds, &parts);
    std::array<char, 64> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ", static_cast<int>(rest.count()));
    return text.data();
}

}  // namespace korlo::daemon

#include "PassedSockets.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "NumberText.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

constexpr int FirstDescriptor = 3;
constexpr const char* ProcessVariable = "LISTEN_PID";
constexpr const char* CountVariable = "LISTEN_FDS";
constexpr const char* NamesVariable = "LISTEN_FDNAMES";
constexpr std::string_view ControlName = "control";

/// The variable, which is gone from the environment then.
std::optional<std::string> TakeVariable(const char* name)
{
    const char* const value = std::getenv(name);
    std::optional<std::string> taken;
    if (value != nullptr)
    {
        taken = value;
        ::unsetenv(name);
    }
    return taken;
}

int ParseNumber(const char* variable, const std::string& text)
{
    const int number = NumberIn<int>(text).value_or(-1);
    if (number < 0)
    {
        throw osa::Exception("%s is '%s', which is no number", variable, text.c_str());
    }
    return number;
}

/// The names that are separated by colons; empty ones where there are fewer than descriptors.
std::string_view TakeName(std::string_view& names)
{
    const std::string_view name = names.substr(0, names.find(':'));
    names.remove_prefix(std::min(names.size(), name.size() + 1));
    return name;
}

void CloseAtExec(int descriptor, const std::string& count)
{
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags < 0 || ::fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC) < 0)
    {
        throw osa::Exception("%s is '%s', but descriptor %d is not open: %s", CountVariable, count.c_str(), descriptor,
                             std::strerror(errno));
    }
}

}  // namespace

PassedSockets PassedSockets::Take()
{
    const std::optional<std::string> process = TakeVariable(ProcessVariable);
    const std::optional<std::string> count = TakeVariable(CountVariable);
    const std::string namesText = TakeVariable(NamesVariable).value_or(std::string());

    PassedSockets passed;
    if (!process || !count || ParseNumber(ProcessVariable, *process) != ::getpid())
    {
        return passed;  // passed to somebody else, who started this process
    }
    const int number = ParseNumber(CountVariable, *count);
    if (number > std::numeric_limits<int>::max() - FirstDescriptor)
    {
        throw osa::Exception("%s is '%s', which is too many", CountVariable, count->c_str());
    }
    std::string_view names = namesText;
    for (int descriptor = FirstDescriptor; descriptor < FirstDescriptor + number; ++descriptor)
    {
        CloseAtExec(descriptor, *count);
        if (TakeName(names) != ControlName)
        {
            passed.settings.push_back(descriptor);
            continue;
        }
        if (passed.control)
        {
            throw osa::Exception("%s names two sockets '%s'; there is one control door", NamesVariable, "control");
        }
        passed.control = descriptor;
    }
    return passed;
}

}  // namespace korlo::daemon

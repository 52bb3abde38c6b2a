#include "ExampleSupport.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>

#include <pthread.h>

#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"

namespace korlo::examples
{
namespace
{

constexpr int StatusFailed = 1;
constexpr int StatusWrongCommandLine = 2;

/// Every client of this process looks for the server there.
void UseServer(const std::string& text)
{
    constexpr int highestPort = 65535;
    const std::size_t colon = text.rfind(':');
    int port = 0;
    if (colon == 0 || colon == std::string::npos || !core::StringUtil::TryParse(text.substr(colon + 1), port) ||
        port <= 0 || port > highestPort)
    {
        throw std::invalid_argument("--server takes HOST:PORT, for example 127.0.0.1:4711, not '" + text + "'");
    }
    const std::string address = text.substr(0, colon);
    // [server]
    // Before the first client of the process is made: all of them look for the server there.
    osa::ServiceDirectory::Register("korlo-settings-server", address, static_cast<unsigned short>(port));
    // [end]
    ::unsetenv("KORLO_SETTINGS_LOCALFILE");  // it would turn every client into a local one
}

/// The operands, once the option is carried out.
Operands TakeOptions(const Program& program, Operands arguments)
{
    if (!arguments.empty() && arguments[0] == "--server")
    {
        UseServer(arguments.size() > 1 ? arguments[1] : "");
        arguments.erase(arguments.begin(), arguments.begin() + 2);
    }
    if (arguments.size() < program.fewest || (!arguments.empty() && arguments[0].starts_with("-")))
    {
        throw std::invalid_argument(std::string("usage: ") + program.name + " [--server HOST:PORT] " +
                                    program.operands);
    }
    return arguments;
}

int Fail(const Program& program, int status, const std::string& message)
{
    std::cerr << program.name << ": " << message << std::endl;
    return status;
}

}  // namespace

Termination::Termination()
{
    sigemptyset(&_signals);
    sigaddset(&_signals, SIGINT);
    sigaddset(&_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &_signals, nullptr);
}

bool Termination::IsWanted(int withinMs)
{
    constexpr int msPerSecond = 1000;
    constexpr long nsPerMs = 1'000'000;
    const timespec limit{withinMs / msPerSecond, withinMs % msPerSecond * nsPerMs};
    _wanted = _wanted || sigtimedwait(&_signals, nullptr, &limit) > 0;
    return _wanted;
}

int RunProgram(const Program& program, int argc, char* argv[])
{
    try
    {
        Termination termination;  // first of all: the threads that a client starts inherit what is blocked
        const Operands operands = TakeOptions(program, Operands(argv + (argc > 0 ? 1 : 0), argv + argc));
        program.Run(operands, termination);
        return EXIT_SUCCESS;
    }
    catch (const std::invalid_argument& exception)
    {
        return Fail(program, StatusWrongCommandLine, exception.what());
    }
    catch (const osa::Exception& exception)
    {
        return Fail(program, StatusFailed,
                    std::string(exception.what()) +
                        "\nIs korlo-settings-server running? Start it, or say where it is by --server HOST:PORT");
    }
    catch (const std::exception& exception)
    {
        return Fail(program, StatusFailed, exception.what());
    }
}

}  // namespace korlo::examples

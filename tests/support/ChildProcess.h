#pragma once
// A program that a test runs.

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korlo
{

/// Starts a program without a shell, with pipes for its standard streams, and ends it when it goes. SIGPIPE is ignored
/// in the test from then on, and not in the program.
///
///     ChildProcess child({program, "list"}, {{"NAME", "value"}});
///     child.CloseInput();
///     EXPECT_EQ(child.Wait(), 0);
///     EXPECT_EQ(child.GetOutput(), "...");
///
/// Every wait has a limit of a minute; then the program is killed and the wait throws.
///
/// Thread safety: none of its own; the owner guards it.
class ChildProcess
{
public:
    using Variables = std::map<std::string, std::string>;

    /// @param variables are added to the environment of the test.
    explicit ChildProcess(std::vector<std::string> command, const Variables& variables = {})
    {
        std::signal(SIGPIPE, SIG_IGN);
        Pipe in;
        Pipe out;
        Pipe err;
        const int error = Spawn(command, EnvironmentWith(variables), {in[0], out[1], err[1]});
        ::close(in[0]);
        ::close(out[1]);
        ::close(err[1]);
        _input = in[1];
        _descriptors = {out[0], err[0]};
        if (error != 0)
        {
            throw std::system_error(error, std::generic_category(), "Failed to start " + command[0]);
        }
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    ~ChildProcess()
    {
        CloseInput();
        CloseOutput();
        Close(_descriptors[1]);
        if (!_ended)
        {
            ::kill(_process, SIGKILL);
            ::waitpid(_process, nullptr, 0);
        }
    }

    /// For less than what a pipe holds; what nobody reads is lost.
    void Write(std::string_view text)
    {
        while (!text.empty())
        {
            const ssize_t length = ::write(_input, text.data(), text.size());
            if (length < 0)
            {
                return;
            }
            text.remove_prefix(static_cast<std::size_t>(length));
        }
    }

    void CloseInput() { Close(_input); }

    /// Standard output has no reader from now on.
    void CloseOutput() { Close(_descriptors[0]); }

    void Signal(int signal) const { ::kill(_process, signal); }

    pid_t GetProcess() const { return _process; }

    /// Waits until standard output holds `text`.
    void AwaitOutput(std::string_view text) { Await(0, text); }

    /// Waits until standard error holds `text`.
    void AwaitErrors(std::string_view text) { Await(1, text); }

    /// Waits for the program to end. Returns its exit status, or 1000 and the number of the signal that ended it.
    int Wait()
    {
        while (Capture())
        {
        }
        int status = 0;
        ::waitpid(_process, &status, 0);
        _ended = true;
        constexpr int signalled = 1000;
        return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
    }

    /// What was captured by the waits so far.
    const std::string& GetOutput() const { return _captured[0]; }
    const std::string& GetErrors() const { return _captured[1]; }

private:
    struct Pipe : std::array<int, 2>
    {
        Pipe()
        {
            if (::pipe2(data(), O_CLOEXEC) != 0)
            {
                throw std::runtime_error("Failed to make a pipe");
            }
        }
    };

    static std::vector<std::string> EnvironmentWith(const Variables& variables)
    {
        std::vector<std::string> environment;
        for (const auto& [name, value] : variables)
        {
            environment.push_back(std::string(name).append("=").append(value));
        }
        for (char** pVariable = environ; *pVariable != nullptr; ++pVariable)
        {
            const std::string variable = *pVariable;
            if (!variables.contains(variable.substr(0, variable.find('='))))
            {
                environment.push_back(variable);
            }
        }
        return environment;
    }

    /// Not by fork: the tests have threads, and what those hold stays locked in a forked child.
    int Spawn(std::vector<std::string>& command, std::vector<std::string> environment,
              const std::array<int, 3>& descriptors)
    {
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        for (int descriptor = 0; descriptor < 3; ++descriptor)
        {
            ::posix_spawn_file_actions_adddup2(&actions, descriptors[static_cast<std::size_t>(descriptor)], descriptor);
        }
        sigset_t usual;
        ::sigemptyset(&usual);
        ::sigaddset(&usual, SIGPIPE);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigdefault(&attributes, &usual);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        const int error = ::posix_spawnp(&_process, command[0].c_str(), &actions, &attributes,
                                         PointersTo(command).data(), PointersTo(environment).data());
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        return error;
    }

    static std::vector<char*> PointersTo(std::vector<std::string>& texts)
    {
        std::vector<char*> pointers;
        for (std::string& text : texts)
        {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    static void Close(int& descriptor)
    {
        if (descriptor >= 0)
        {
            ::close(descriptor);
            descriptor = -1;
        }
    }

    void Await(std::size_t stream, std::string_view text)
    {
        while (_captured[stream].find(text) == std::string::npos)
        {
            if (!Capture())
            {
                throw std::runtime_error("The program ended; it wrote: " + _captured[0] + _captured[1]);
            }
        }
    }

    /// Takes what there is, waits if there is nothing. False when both streams have ended.
    bool Capture()
    {
        if (_descriptors[0] < 0 && _descriptors[1] < 0)
        {
            return false;
        }
        constexpr int limitMs = 60000;
        std::array<pollfd, 2> polled{pollfd{_descriptors[0], POLLIN, 0}, pollfd{_descriptors[1], POLLIN, 0}};
        if (::poll(polled.data(), polled.size(), limitMs) == 0)
        {
            ::kill(_process, SIGKILL);
            throw std::runtime_error("The program hangs; it wrote: " + _captured[0] + _captured[1]);
        }
        for (std::size_t stream = 0; stream < polled.size(); ++stream)
        {
            if (polled[stream].revents != 0)
            {
                Take(stream);
            }
        }
        return true;
    }

    void Take(std::size_t stream)
    {
        std::array<char, 4096> piece;
        const ssize_t length = ::read(_descriptors[stream], piece.data(), piece.size());
        if (length > 0)
        {
            _captured[stream].append(piece.data(), static_cast<std::size_t>(length));
        }
        else
        {
            Close(_descriptors[stream]);
        }
    }

    pid_t _process = -1;
    bool _ended = false;
    int _input = -1;
    std::array<int, 2> _descriptors{-1, -1};  // standard output and standard error
    std::array<std::string, 2> _captured;
};

}  // namespace korlo

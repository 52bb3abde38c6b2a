#pragma once
// A bash at a terminal, and a person who types.

#include <cerrno>
#include <csignal>
#include <cstdlib>
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

/// An interactive bash without anybody's configuration, on a terminal of its own, killed when it goes.
///
///     InteractiveBash bash({{"PATH", path}});
///     bash.Type("ec\t hello\r");
///     bash.AwaitPrompt();
///
/// Every wait has a limit of a minute; then it throws, with what the terminal shows.
///
/// Thread safety: none of its own; the owner guards it.
class InteractiveBash
{
public:
    using Variables = std::map<std::string, std::string>;

    /// Returns at the first prompt.
    /// @param variables the environment, but for what makes a terminal predictable.
    explicit InteractiveBash(Variables variables)
    {
        variables.insert({{"LC_ALL", "C.UTF-8"}, {"TERM", "dumb"}, {"INPUTRC", "/dev/null"}, {"PS1", Prompt}});
        _terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (_terminal < 0 || ::grantpt(_terminal) != 0 || ::unlockpt(_terminal) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "Failed to open a terminal");
        }
        Start(variables);
        AwaitPrompt();
    }

    InteractiveBash(const InteractiveBash&) = delete;
    InteractiveBash& operator=(const InteractiveBash&) = delete;

    ~InteractiveBash()
    {
        ::kill(_process, SIGKILL);
        ::close(_terminal);
        ::waitpid(_process, nullptr, 0);
    }

    /// Keys as they are pressed: "\t" is TAB, "\r" the Enter key. For less than what a terminal buffers.
    void Type(std::string_view keys)
    {
        _shown.clear();
        if (::write(_terminal, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
        {
            throw std::system_error(errno, std::generic_category(), "Failed to type");
        }
    }

    /// Waits until the terminal shows `text` after what was typed last.
    void Await(std::string_view text)
    {
        constexpr int limitMs = 60'000;
        while (_shown.find(text) == std::string::npos)
        {
            pollfd polled{_terminal, POLLIN, 0};
            char piece[4096];
            const ssize_t length =
                ::poll(&polled, 1, limitMs) > 0 ? ::read(_terminal, piece, sizeof(piece)) : ssize_t(0);
            if (length <= 0)
            {
                throw std::runtime_error("The terminal shows only: " + _shown);
            }
            _shown.append(piece, static_cast<std::size_t>(length));
        }
    }

    void AwaitPrompt() { Await(Prompt); }

    /// What the terminal has shown since something was typed.
    const std::string& GetShown() const { return _shown; }

private:
    static constexpr const char* Prompt = "ready> ";

    /// Not by fork: the tests have threads, and what those hold stays locked in a forked child.
    void Start(const Variables& variables)
    {
        std::vector<std::string> texts;
        std::vector<char*> environment;
        for (const auto& [name, value] : variables)
        {
            texts.push_back(std::string(name).append("=").append(value));
        }
        for (std::string& text : texts)
        {
            environment.push_back(text.data());
        }
        environment.push_back(nullptr);
        std::string words[] = {"bash", "--norc", "--noprofile", "-i"};
        char* command[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
        // The first terminal that the leader of a session opens is the one that it is controlled by.
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, ::ptsname(_terminal), O_RDWR, 0);
        ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
        const int error = ::posix_spawnp(&_process, command[0], &actions, &attributes, command, environment.data());
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
        {
            ::close(_terminal);
            throw std::system_error(error, std::generic_category(), "Failed to start bash");
        }
    }

    int _terminal = -1;
    pid_t _process = -1;
    std::string _shown;
};

}  // namespace korlo

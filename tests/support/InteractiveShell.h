#pragma once
// A shell at a terminal, and a person who types.

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

/// An interactive shell on a terminal of its own, killed when it goes.
///
///     InteractiveShell shell({"zsh", "-f", "-i"}, {{"PS1", "ready> "}});
///     shell.Await("ready> ");
///     shell.Type("ec\t hello\r");
///     shell.Await("hello", "\r\n");
///
/// Every wait has a limit of a minute; then it throws, with what the terminal shows.
///
/// Thread safety: none of its own; the owner guards it.
class InteractiveShell
{
public:
    using Words = std::vector<std::string>;
    using Variables = std::map<std::string, std::string>;

    /// @param variables the environment.
    InteractiveShell(Words command, const Variables& variables) : _terminal(Open()) { Start(command, variables); }

    InteractiveShell(const InteractiveShell&) = delete;
    InteractiveShell& operator=(const InteractiveShell&) = delete;

    ~InteractiveShell()
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

    /// Waits until the terminal shows `text` after what was typed last, and there behind `before`.
    void Await(std::string_view text, std::string_view before = "")
    {
        constexpr int limitMs = 60'000;
        while (!Shows(text, before))
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

    /// What the terminal has shown since something was typed.
    const std::string& GetShown() const { return _shown; }

private:
    bool Shows(std::string_view text, std::string_view before) const
    {
        const std::size_t begin = _shown.find(before);
        return begin != std::string::npos && _shown.find(text, begin + before.size()) != std::string::npos;
    }

    static int Open()
    {
        const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "Failed to open a terminal");
        }
        return terminal;
    }

    static std::vector<char*> PointersTo(Words& texts)
    {
        std::vector<char*> pointers;
        for (std::string& text : texts)
        {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    /// Not by fork: the tests have threads, and what those hold stays locked in a forked child.
    void Start(Words& command, const Variables& variables)
    {
        Words texts;
        for (const auto& [name, value] : variables)
        {
            texts.push_back(std::string(name).append("=").append(value));
        }
        const std::vector<char*> environment = PointersTo(texts);
        const std::vector<char*> words = PointersTo(command);
        // The first terminal that the leader of a session opens is the one that it is controlled by.
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, ::ptsname(_terminal), O_RDWR, 0);
        ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
        const int error = ::posix_spawnp(&_process, words[0], &actions, &attributes, words.data(), environment.data());
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0)
        {
            ::close(_terminal);
            throw std::system_error(error, std::generic_category(), "Failed to start " + command.front());
        }
    }

    const int _terminal;
    pid_t _process = -1;
    std::string _shown;
};

}  // namespace korlo

#pragma once
// Servers with several doors, with sockets that were passed, or with no door at all.

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo
{

/// A folder with defaults, and the command lines of servers over it, with doors as a test wants them.
///
/// Thread safety: none of its own; the owner guards it.
class ServerDoors : public testing::Test
{
protected:
    using Arguments = ServerProcess::Arguments;

    ServerDoors() { WriteFile(PathOf("defaults.ini"), "[A]\nk=1\n"); }

    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }

    Arguments Files(const Arguments& more = {}) const
    {
        Arguments arguments = {"--defaults", PathOf("defaults.ini"), "--user", PathOf("user.ini")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    /// A server without the door that ServerProcess opens.
    Arguments Bare(const Arguments& more) const
    {
        Arguments command = ServerProcess::Command(Files(more));
        const auto listen = std::find(command.begin(), command.end(), "--listen");
        command.erase(listen, listen + 2);
        return command;
    }

    /// The same with descriptors passed as a service manager does, from 3 on.
    Arguments Passed(const std::vector<int>& descriptors, const std::string& names, const Arguments& more = {})
    {
        std::string redirections;
        for (std::size_t index = 0; index < descriptors.size(); ++index)
        {
            // Far from those that they become, so that none is lost on the way.
            constexpr int far = 100;
            const int copy = ::fcntl(descriptors[index], F_DUPFD, far);
            redirections += ' ' + std::to_string(3 + index) + "<&" + std::to_string(copy);
            _copies.emplace_back(copy);
        }
        Arguments command = {"bash", "-c",
                             "export LISTEN_PID=$$ LISTEN_FDS=" + std::to_string(descriptors.size()) +
                                 " LISTEN_FDNAMES=" + names + "; exec \"$@\"" + redirections,
                             "sh"};
        const Arguments server = Bare(more);
        command.insert(command.end(), server.begin(), server.end());
        return command;
    }

    /// A socket of a service manager at that path.
    static int ListeningSocket(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(descriptor, SOMAXCONN), 0);
        return descriptor;
    }

    /// Runs a server that ends by itself; what it says of that.
    static std::string Refusal(const Arguments& command, int status = 1)
    {
        ChildProcess child(command);
        EXPECT_EQ(child.Wait(), status);
        EXPECT_EQ(child.GetOutput(), "");
        return child.GetErrors();
    }

    /// The command run by a process that is bound by the modes of files, which root is not as a rule.
    static Arguments BoundByModes(const Arguments& command)
    {
        Arguments words{"sh", "-c",
                        "drop='setpriv --bounding-set=-dac_override,-dac_read_search'; "
                        "$drop true 2>/dev/null || drop=; exec $drop \"$@\"",
                        "sh"};
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    static unsigned int ModeOf(const std::string& path)
    {
        struct stat status = {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777u : 0;
    }

    std::list<OwnedDescriptor> _copies;  // that programs started from here inherit
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("socket");
    const std::string _address = "unix:" + _path;
};

}  // namespace korlo

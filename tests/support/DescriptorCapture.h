#pragma once
// What is written to a descriptor of the process.

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace korlo
{

/// Takes the place of standard output or standard error while it lives, and keeps every write call apart.
///
/// Holds as many unread writes as a socket's buffer does; a writer then waits for GetWrites.
///
/// Thread safety: none of its own; the owner guards it.
class DescriptorCapture
{
public:
    explicit DescriptorCapture(int descriptor) : _descriptor(descriptor)
    {
        std::fflush(nullptr);
        std::array<int, 2> ends;
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
        {
            throw std::runtime_error("Failed to make a pair of sockets");
        }
        _reader = ends[0];
        _original = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        ::dup2(ends[1], descriptor);
        ::close(ends[1]);
    }

    DescriptorCapture(const DescriptorCapture&) = delete;
    DescriptorCapture& operator=(const DescriptorCapture&) = delete;

    ~DescriptorCapture()
    {
        std::fflush(nullptr);
        ::dup2(_original, _descriptor);
        ::close(_original);
        ::close(_reader);
    }

    /// What was written since the last call, one string for each write call.
    std::vector<std::string> GetWrites()
    {
        std::vector<std::string> writes;
        std::string buffer(1u << 16, '\0');
        for (;;)
        {
            const ssize_t length = ::recv(_reader, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (length <= 0)
            {
                return writes;
            }
            writes.push_back(buffer.substr(0, static_cast<std::size_t>(length)));
        }
    }

private:
    const int _descriptor;
    int _reader = -1;
    int _original = -1;
};

}  // namespace korlo

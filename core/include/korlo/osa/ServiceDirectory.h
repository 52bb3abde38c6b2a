#pragma once
// Where this process finds services, beside what the system knows.

#include <string>

namespace korlo::osa
{

/// The addresses of services by the name of their host, for the whole process. TcpSocket::Connect asks it when it is
/// given no port.
///
///     ServiceDirectory::Register("korlo-settings-server", "127.0.0.1", listener.GetPort());
///     ServiceDirectory::Register("korlo-settings-server", "unix:/run/korlo-settings/socket", 0);
///
/// Thread safety: all methods, from any thread.
class ServiceDirectory
{
public:
    ServiceDirectory() = delete;

    /// Enters a host, or replaces its entry.
    /// @param address an address or a name that the system resolves, or unix:PATH, with which the port means nothing.
    ///        It is looked at when somebody connects.
    static void Register(const std::string& host, const std::string& address, unsigned short port);

    /// Removes a host; no effect when it is not entered.
    static void Unregister(const std::string& host);

    /// True, with `address` and `port` set, when the host is entered; else false, with both untouched.
    static bool Find(const std::string& host, std::string& address, unsigned short& port);
};

}  // namespace korlo::osa

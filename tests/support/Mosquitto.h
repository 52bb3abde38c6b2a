#pragma once
// A broker that a test runs.

#include <array>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocket.h"
#include "support/ChildProcess.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo
{

/// A mosquitto on a port of this machine, killed when it goes. It keeps what it holds when it is ended in order.
///
/// Thread safety: none of its own; the owner guards it.
class Mosquitto
{
public:
    /// @param options more lines of its configuration; without any, everybody may do everything.
    explicit Mosquitto(const std::string& options = "allow_anonymous true\n") : _options(options)
    {
        constexpr int attempts = 20;
        for (int attempt = 0; _pChild == nullptr; ++attempt)
        {
            _port = osa::TcpListener("127.0.0.1", 0).GetPort();  // free, unless somebody is quicker
            try
            {
                Start();
            }
            catch (const std::runtime_error&)
            {
                if (attempt == attempts)
                {
                    throw;
                }
            }
        }
    }

    /// After End, on the same port. Returns once clients can connect.
    void Start()
    {
        const std::string path = _folder.PathOf("mosquitto.conf");
        WriteFile(path, "user root\nlog_type information\nconnection_messages false\nlog_dest stderr\n"
                        "persistence true\npersistence_location " +
                            _folder.GetPath() + "/\nlistener " + std::to_string(_port) + " 127.0.0.1\n" + _options);
        _pChild.reset();
        auto pChild = std::make_unique<ChildProcess>(std::vector<std::string>{"mosquitto", "-c", path},
                                                     ChildProcess::Variables{{"PATH", "/usr/sbin:/usr/bin:/bin"}});
        pChild->AwaitErrors(" running\n");
        _pChild = std::move(pChild);
        AwaitAnswer();
    }

    /// SIGKILL ends it as a power cut does: what it holds is lost.
    void End(int signal = SIGTERM)
    {
        _pChild->Signal(signal);
        _pChild->Wait();
    }

    void Signal(int signal) const { _pChild->Signal(signal); }

    /// For the next Start.
    void SetOptions(const std::string& options) { _options = options; }

    unsigned short GetPort() const { return _port; }
    pid_t GetProcess() const { return _pChild->GetProcess(); }

private:
    /// It says that it is running shortly before it is, and a signal that comes in between is lost: so let it end a
    /// connection that makes no sense.
    void AwaitAnswer() const
    {
        constexpr unsigned int limitMs = 30'000;
        const std::string nonsense = "GET / HTTP/1.0\r\n\r\n";
        osa::TcpSocket socket(1);
        socket.Connect("127.0.0.1", _port, limitMs);
        socket.WriteAll(nonsense.data(), nonsense.size(), limitMs);
        std::array<char, 64> answer{};
        while (socket.ReadSome(answer.data(), answer.size(), limitMs).status == osa::TcpSocket::Done)
        {
        }
    }

    const TemporaryFolder _folder;
    std::string _options;
    unsigned short _port = 0;
    std::unique_ptr<ChildProcess> _pChild;
};

}  // namespace korlo

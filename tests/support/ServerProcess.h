#pragma once
// The real server, and clients that speak to it byte by byte.

#include <csignal>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"
#include "korlo/osa/Thread.h"
#include "support/ChildProcess.h"
#include "support/ProcessFigures.h"

namespace korlo
{

/// A korlo-settings-server on a free port of this machine, killed when it goes.
///
/// Thread safety: none of its own; the owner guards it.
class ServerProcess
{
public:
    using Arguments = std::vector<std::string>;

    /// A command line that ends as the one of Command does: for a server that something else starts.
    struct WholeCommand
    {
        Arguments words;
    };

    /// Returns once clients can connect; throws when the server ends instead.
    explicit ServerProcess(const Arguments& arguments, const ChildProcess::Variables& variables = {})
        : ServerProcess(WholeCommand{Command(arguments)}, variables)
    {
    }

    explicit ServerProcess(const WholeCommand& command, const ChildProcess::Variables& variables = {})
        : _child(command.words, variables)
    {
        const std::string announcement = "listening on 127.0.0.1:";
        _child.AwaitOutput("\n");
        _port = static_cast<unsigned short>(std::stoi(_child.GetOutput().substr(announcement.size())));
    }

    /// The command line of a server on a free port.
    static Arguments Command(const Arguments& arguments)
    {
        Arguments command;
        std::istringstream emulator(KORLO_EMULATOR);
        for (std::string word; emulator >> word;)
        {
            command.push_back(word);
        }
        command.insert(command.end(), {KORLO_SETTINGS_SERVER, "--listen", "127.0.0.1:0"});
        command.insert(command.end(), arguments.begin(), arguments.end());
        return command;
    }

    unsigned short GetPort() const { return _port; }
    ChildProcess& GetChild() { return _child; }

    /// Sends the signal and waits. The exit status, or 1000 and the number of the signal.
    int End(int signal = SIGTERM)
    {
        _child.Signal(signal);
        return _child.Wait();
    }

    std::size_t CountThreads() const { return Figures().CountThreads(); }
    std::size_t CountDescriptors() const { return Figures().CountDescriptors(); }
    std::size_t GetResidentKiB() const { return Figures().GetResidentKiB(); }

private:
    ProcessFigures Figures() const { return ProcessFigures(_child.GetProcess()); }

    ChildProcess _child;
    unsigned short _port = 0;
};

/// A client that sends what the test says. Reads give up after half a minute.
///
/// Thread safety: one thread reads while another sends; the rest belongs to the owner.
class RawClient
{
public:
    explicit RawClient(unsigned short port) : _socket(1) { _socket.Connect("127.0.0.1", port, WaitMs); }

    /// @param address unix:PATH.
    explicit RawClient(const std::string& address) : _socket(1) { _socket.Connect(address.c_str(), 0, WaitMs); }

    /// False when the connection is lost.
    bool Send(const std::string& text)
    {
        return _socket.WriteAll(text.data(), text.size(), WaitMs).status == osa::TcpSocket::Done;
    }

    /// The next line without its line break; empty at the end of the connection, too.
    std::string ReadLine()
    {
        std::string line;
        std::getline(_stream, line);
        return line;
    }

    /// The lines up to one that is exactly `last`, which is dropped.
    std::string ReadUntil(const std::string& last)
    {
        std::string text;
        for (std::string line; std::getline(_stream, line) && line != last;)
        {
            text += line + '\n';
        }
        return text;
    }

    std::string ReadBlock() { return ReadUntil("."); }

    /// The groups, by a get.
    std::string Get(const std::string& groups)
    {
        Send("get delimited\n" + groups + "\n.\n");
        ReadLine();
        return ReadBlock();
    }

    bool TestAndMerge(const std::string& expected, const std::string& changes)
    {
        Send("test-and-merge\n" + expected + ".\n" + changes + ".\n");
        ReadUntil("result");
        return ReadLine() == "ok";
    }

    /// True when the connection ends without a further byte.
    bool MeetsTheEnd() { return _stream.peek() == std::char_traits<char>::eof(); }

    std::istream& GetStream() { return _stream; }
    osa::TcpSocket& GetSocket() { return _socket; }

private:
    static constexpr unsigned int WaitMs = 30'000;

    osa::TcpSocket _socket;
    osa::TcpSocketStream _stream{&_socket, WaitMs};
};

/// Waits until the condition holds: for what another process does without telling. False after half a minute.
inline bool Eventually(const std::function<bool()>& condition)
{
    constexpr unsigned int pauseMs = 10;
    constexpr unsigned int limitMs = 30'000;
    for (unsigned int waited = 0; waited < limitMs; waited += pauseMs)
    {
        if (condition())
        {
            return true;
        }
        osa::Thread::CurrentThread::Sleep(pauseMs);
    }
    return condition();
}

}  // namespace korlo

#include "control/ControlDoor.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <istream>
#include <optional>
#include <string_view>

#include "ControlProtocol.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 64 * 1024;
constexpr std::string_view Blanks = " \t\r";

/// The next line; nothing at the end of the connection, and when the client takes too long.
/// @throws osa::Exception for a line that is too long.
std::optional<std::string> ReadLine(std::istream& in)
{
    std::string line;
    for (int next = in.get(); next != '\n'; next = in.get())
    {
        if (next == std::istream::traits_type::eof())
        {
            return std::nullopt;
        }
        if (line.size() >= ControlDoor::MostLineBytes)
        {
            throw osa::Exception("a request may have %zu bytes", ControlDoor::MostLineBytes);
        }
        line += static_cast<char>(next);
    }
    return line;
}

std::string_view WithoutBlanks(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(Blanks), text.size()));
    text.remove_suffix(text.size() - std::min(text.find_last_not_of(Blanks) + 1, text.size()));
    return text;
}

/// A message is one line, whatever it quotes.
void WriteError(std::ostream& out, std::string message)
{
    std::replace_if(
        message.begin(), message.end(), [](unsigned char c) { return c < ' '; }, '?');
    out << control::ErrorPrefix << message << '\n' << std::flush;
}

/// Where the answers to one request go.
///
/// Thread safety: as IControlClient.
class Answers : public IControlClient
{
public:
    /// @param socket, in, out of one connection, borrowed.
    Answers(osa::TcpSocket& socket, std::istream& in, std::ostream& out) : _socket(socket), _in(in), _out(out) {}

    bool Send(const core::IniFile& answer) override
    {
        _out << control::Ok << '\n';
        answer.SaveToStream(_out);
        _out << control::EndOfAnswer << '\n' << std::flush;
        return _out.good();
    }

    bool Wait(unsigned int timeoutMs) override
    {
        return _in.rdbuf()->in_avail() <= 0 && (_socket.Wait(true, false, timeoutMs) & osa::TcpSocket::Readable) == 0;
    }

    bool Stay(unsigned int timeoutMs) override
    {
        // Asked for nothing, it tells only of a connection that is lost.
        return (_socket.Wait(false, false, timeoutMs) & osa::TcpSocket::Readable) == 0;
    }

    void Wake() override { _socket.Wake(); }

private:
    osa::TcpSocket& _socket;
    std::istream& _in;
    std::ostream& _out;
};

}  // namespace

/// One client and its thread.
///
/// Thread safety: Run is the client's own thread; Stop and HasEnded from any thread.
class ControlDoor::Client : private osa::Runnable
{
public:
    Client(std::unique_ptr<osa::TcpSocket> pSocket, const Words& words, const Limits& limits)
        : _words(words),
          _limits(limits),
          _pSocket(std::move(pSocket)),
          _thread("Control", this, StackBytes, 0)
    {
    }

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Waits for the thread, if it was started.
    ~Client() override = default;

    /// @throws osa::Exception when the system has no thread left.
    void Start() { _thread.Run(); }

    void Stop() override { _pSocket->Close(); }
    bool HasEnded() const { return _hasEnded; }

private:
    void Run() override
    {
        try
        {
            Serve();
        }
        catch (const std::exception& exception)
        {
            core::Logger::GetLogger("ControlDoor")->Warning("A client is disconnected: %s", exception.what());
        }
        _pSocket->Close();
        _hasEnded = true;
    }

    void Serve()
    {
        osa::TcpSocketStream in(_pSocket.get(), _limits.idleMs);
        osa::TcpSocketStream out(_pSocket.get(), _limits.writeMs);
        Answers answers(*_pSocket, in, out.GetOstream());
        try
        {
            // Once it has not taken an answer in time, it is asked for no further request.
            while (out.GetOstream())
            {
                const std::optional<std::string> line = ReadLine(in);
                if (!line)
                {
                    return;
                }
                Serve(WithoutBlanks(*line), answers, out.GetOstream());
            }
        }
        catch (const osa::Exception& exception)
        {
            WriteError(out.GetOstream(), exception.what());
            throw;
        }
    }

    void Serve(std::string_view request, Answers& answers, std::ostream& out) const
    {
        const std::string_view name = request.substr(0, request.find_first_of(Blanks));
        const auto word = _words.find(name);
        if (word == _words.end())
        {
            WriteError(out, std::string(control::UnknownWord) + '\'' + std::string(name) + '\'');
            return;
        }
        try
        {
            word->second->Serve(std::string(WithoutBlanks(request.substr(name.size()))), answers);
        }
        catch (const std::exception& exception)
        {
            WriteError(out, exception.what());
        }
    }

    const Words& _words;
    const Limits _limits;
    const std::unique_ptr<osa::TcpSocket> _pSocket;
    std::atomic<bool> _hasEnded = false;
    osa::Thread _thread;  // last
};

ControlDoor::ControlDoor(std::unique_ptr<osa::TcpListener> pListener, Words words, const Limits& limits)
    : _words(std::move(words)),
      _limits(limits),
      _pLogger(core::Logger::GetLogger("ControlDoor")),
      _pListener(std::move(pListener)),
      _thread("ControlDoor", this, StackBytes, 0)
{
}

ControlDoor::~ControlDoor()
{
    ControlDoor::Stop();
}

void ControlDoor::Start()
{
    _thread.Run();
}

void ControlDoor::Stop()
{
    _pListener->Close();
    _thread.Join();
    for (Client& client : _clients)
    {
        client.Stop();
    }
    _clients.clear();
}

/// Whatever fails here costs the operator the door, and the settings clients nothing.
void ControlDoor::Run()
{
    try
    {
        while (std::unique_ptr<osa::TcpSocket> pSocket = _pListener->Accept())
        {
            Accept(std::move(pSocket));
        }
    }
    catch (const std::exception& exception)
    {
        _pLogger->Error("The control door is closed: %s", exception.what());
    }
}

void ControlDoor::Accept(std::unique_ptr<osa::TcpSocket> pSocket)
{
    _clients.remove_if([](const Client& client) { return client.HasEnded(); });
    if (_clients.size() >= MostClients)
    {
        static_assert(MostClients == 8);
        const std::string refusal = std::string(control::ErrorPrefix) + std::string(control::TooManyClients) + '\n';
        pSocket->WriteAll(refusal.data(), refusal.size(), 0);
        return;
    }
    try
    {
        _clients.emplace_back(std::move(pSocket), _words, _limits).Start();
    }
    catch (const std::exception& exception)
    {
        _clients.remove_if([](const Client& client) { return client.HasEnded(); });
        _pLogger->Warning("A client is refused: %s", exception.what());
    }
}

}  // namespace korlo::daemon

#pragma once
// A control door that a test plays.

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::cli
{

/// Answers the first line of each client with the same words.
///
/// Thread safety: one owner; the thread that serves shares the requests alone.
class FakeDoor
{
public:
    enum Ending
    {
        Close,    ///< ends the connection after the answer
        StayOpen  ///< leaves that to the client
    };

    FakeDoor(const std::string& path, const std::string& answer, Ending ending = StayOpen)
        : _answer(answer),
          _ending(ending),
          _listener("unix:" + path, 0),
          _thread([this] { Serve(); })
    {
    }

    FakeDoor(const FakeDoor&) = delete;
    FakeDoor& operator=(const FakeDoor&) = delete;

    ~FakeDoor()
    {
        _listener.Close();
        _thread.join();
    }

    std::vector<std::string> GetRequests() const
    {
        const std::lock_guard lock(_mutex);
        return _requests;
    }

private:
    static constexpr unsigned int WaitMs = 30'000;

    void Serve()
    {
        while (const std::unique_ptr<osa::TcpSocket> pSocket = _listener.Accept())
        {
            osa::TcpSocketStream stream(pSocket.get(), WaitMs);
            std::string line;
            std::getline(stream, line);
            {
                const std::lock_guard lock(_mutex);
                _requests.push_back(line);
            }
            stream.GetOstream() << _answer << std::flush;
            if (_ending == StayOpen)
            {
                stream.peek();
            }
        }
    }

    const std::string _answer;
    const Ending _ending;
    osa::TcpListener _listener;
    mutable std::mutex _mutex;
    std::vector<std::string> _requests;  // guarded by _mutex
    std::thread _thread;                 // last
};

}  // namespace korlo::settings::cli

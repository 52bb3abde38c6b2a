#pragma once
// A connection whose server is a script.

#include <deque>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "client/KorloSettingsConnection.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{

/// What a FakeConnection does, and what it was asked to do. Outlives the connection.
struct ConnectionScript
{
    /// One entry for each time that the connection is established: all that the server will ever say on it. An entry
    /// "!" is a connection that fails. When there are no entries left, every attempt fails.
    std::deque<std::string> responses;

    std::vector<std::string> requests;  // what was written, one for each time
    std::vector<int> retries;           // the argument of each EnsureConnection
    int closeCount = 0;
};

/// Established as the script says; ready until one of its streams fails.
///
/// Thread safety: none of its own; the owner guards it.
class FakeConnection : public KorloSettingsConnection
{
public:
    explicit FakeConnection(ConnectionScript& script) : _script(script) {}
    ~FakeConnection() override { Drop(); }

    void EnsureConnection(int retries) override
    {
        _script.retries.push_back(retries);
        if (IsReady())
        {
            return;
        }
        Drop();
        if (_script.responses.empty() || _script.responses.front() == "!")
        {
            if (!_script.responses.empty())
            {
                _script.responses.pop_front();
            }
            throw osa::Exception("nobody is there");
        }
        _in = std::make_unique<std::istringstream>(_script.responses.front());
        _out = std::make_unique<std::ostringstream>();
        _script.responses.pop_front();
        _pIn = _in.get();
        _pOut = _out.get();
    }

    void CloseConnection() override { ++_script.closeCount; }

private:
    void Drop()
    {
        if (_out != nullptr)
        {
            _script.requests.push_back(_out->str());
        }
        ForgetStreams();
        _in.reset();
        _out.reset();
    }

    ConnectionScript& _script;
    std::unique_ptr<std::istringstream> _in;
    std::unique_ptr<std::ostringstream> _out;
};

}  // namespace korlo::settings::client

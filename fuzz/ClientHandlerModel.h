#pragma once
// The server's side of the settings protocol as one would first write it down: each connection's bytes in one string,
// a request taken from its front when it is whole.

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "PhpArrayModel.h"
#include "settings/GroupNameCollection.h"
#include "support/Documents.h"
#include "support/StoreModel.h"

namespace korlo::fuzz
{

using settings::GroupNameCollection;
using settings::server::Groups;
using settings::server::StoreModel;

class ConnectionModel;

/// A store and the connections to it.
///
/// Thread safety: none of its own; the owner guards it.
struct ServerModel
{
    explicit ServerModel(StoreModel loaded) : store(std::move(loaded)) {}

    void Announce(const StoreModel::Announcement& announcement);

    StoreModel store;
    std::vector<ConnectionModel*> connections;  // borrowed; those that are open
    bool nextSaveFails = false;
};

/// One connection: what comes in, what goes out.
///
/// Thread safety: none of its own; the owner guards it.
class ConnectionModel
{
public:
    /// @param server borrowed; must outlive the connection.
    explicit ConnectionModel(ServerModel& server) : _server(server) { _server.connections.push_back(this); }

    ConnectionModel(const ConnectionModel&) = delete;
    ConnectionModel& operator=(const ConnectionModel&) = delete;
    ~ConnectionModel() { std::erase(_server.connections, this); }

    /// The client sent this.
    void Receive(const std::string& bytes)
    {
        _received += bytes;
        while (!_hasEnded && TakeRequest())
        {
        }
    }

    void Hear(const StoreModel::Announcement& announcement)
    {
        GroupNameCollection listed;
        for (const std::string& name : announcement.groups)
        {
            if (StoreModel::IsSelected(_subscription, name) && name != "." && name.find('\n') == std::string::npos)
            {
                listed.insert(name);
            }
        }
        if (listed.empty())
        {
            return;
        }
        _sent += "async change\n";
        for (const std::string& name : listed)
        {
            _sent += name + "\n";
        }
        _sent += ".\n" + Serialized(listed) + ".\n";
    }

    /// True once nothing more is read from the client: it has quit, or a request of its failed.
    bool HasEnded() const { return _hasEnded; }

    const std::string& GetSent() const { return _sent; }
    const GroupNameCollection& GetSubscription() const { return _subscription; }

private:
    /// Takes what a request consists of from the front of what was received. Once something is missing, every further
    /// step gives nothing.
    class Parts
    {
    public:
        Parts(const std::string& text, bool isPhp) : _text(text), _isPhp(isPhp) {}

        std::string Line()
        {
            const std::size_t end = _text.find('\n', _position);
            if (_isMissing || end == std::string::npos)
            {
                _isMissing = true;
                return "";
            }
            const std::string line = _text.substr(_position, end - _position);
            _position = end + 1;
            return line;
        }

        std::vector<std::string> Block()
        {
            std::vector<std::string> lines;
            for (std::string line = Line(); !_isMissing && line != "."; line = Line())
            {
                lines.push_back(line);
            }
            return lines;
        }

        GroupNameCollection List()
        {
            const std::vector<std::string> lines = Block();
            return {lines.begin(), lines.end()};
        }

        Groups Body() { return _isPhp ? PhpBody() : IniBody(); }

        bool AreMissing() const { return _isMissing; }
        bool AreMalformed() const { return _isMalformed; }
        std::size_t GetLength() const { return _position; }

    private:
        Groups IniBody()
        {
            std::string text;
            for (const std::string& line : Block())
            {
                text += line + "\n";
            }
            return settings::server::ToMap(Ini(text));
        }

        Groups PhpBody()
        {
            if (_isMissing || _isMalformed)
            {
                return {};
            }
            const PhpArrayModel array(std::string_view(_text).substr(_position));
            _isMissing = array.GetOutcome() == PhpArrayModel::Outcome::CutOff;
            _isMalformed = array.GetOutcome() == PhpArrayModel::Outcome::Malformed;
            _position += array.GetLength();
            return array.GetGroups();
        }

        const std::string& _text;
        const bool _isPhp;
        std::size_t _position = 0;
        bool _isMissing = false;
        bool _isMalformed = false;
    };

    /// Returns false when there is no whole request, or nothing more is to be read.
    bool TakeRequest()
    {
        Parts parts(_received, _isPhp);
        std::istringstream words(parts.Line());
        std::string command;
        std::string option;
        words >> command >> option;
        const Request request = RequestOf(command, parts);
        if (parts.AreMalformed())
        {
            _hasEnded = true;
            _subscription.clear();
        }
        if (parts.AreMissing() || parts.AreMalformed())
        {
            return false;
        }
        _received.erase(0, parts.GetLength());
        CarryOut(command, option, request);
        return true;
    }

    struct Request
    {
        GroupNameCollection list;
        Groups first;
        Groups second;
    };

    static Request RequestOf(const std::string& command, Parts& parts)
    {
        Request request;
        if (command == "get" || command == "subscribe" || command == "restore" || command == "overwrite")
        {
            request.list = parts.List();
        }
        if (command == "merge" || command == "test-and-merge" || command == "overwrite")
        {
            request.first = parts.Body();
        }
        if (command == "test-and-merge")
        {
            request.second = parts.Body();
        }
        return request;
    }

    void CarryOut(const std::string& command, const std::string& option, const Request& request)
    {
        if (command == "get")
        {
            Get(request.list, option == "delimited");
        }
        else if (command == "dump")
        {
            const StoreModel& store = _server.store;
            _sent += TextOf(settings::server::ToIni(option == "all" ? store.settings : store.user)) + ".\n";
        }
        else if (command == "info" && option == "subscribed")
        {
            Info();
        }
        else if (command == "serialize")
        {
            _isPhp = option == "phparray" || (_isPhp && option != "ini");
        }
        else if (command == "subscribe")
        {
            _subscription.insert(request.list.begin(), request.list.end());
        }
        else if (command == "quit")
        {
            End();
        }
        else
        {
            Change(command, option, request);
        }
    }

    void Change(const std::string& command, const std::string& option, const Request& request)
    {
        StoreModel& store = _server.store;
        if (command == "merge" && option == "nopersist")
        {
            Conclude(store.Merge(request.first, false));
        }
        else if (command == "merge")
        {
            Conclude(store.Merge(request.first, true, NextSaveFails()));
        }
        else if (command == "test-and-merge" && !store.Contains(request.first))
        {
            _sent += "result\nfailure\n";
        }
        else if (command == "test-and-merge")
        {
            Conclude(store.Merge(request.second, true, NextSaveFails()));
            _sent += _hasEnded ? "" : "result\nok\n";
        }
        else if (command == "overwrite")
        {
            Conclude(store.Overwrite(request.list, request.first, NextSaveFails()));
        }
        else if (command == "restore")
        {
            Conclude(store.Restore(request.list, NextSaveFails()));
        }
    }

    bool NextSaveFails() { return std::exchange(_server.nextSaveFails, false); }

    /// A change whose save fails ends the connection that made it.
    void Conclude(const std::optional<StoreModel::Announcement>& announcement)
    {
        announcement ? _server.Announce(*announcement) : End();
    }

    void Get(const GroupNameCollection& list, bool isDelimited)
    {
        _sent += isDelimited ? "data\n" : "";
        _sent += list.empty() ? "" : Serialized(list);
        _sent += isDelimited ? ".\n" : "";
    }

    void Info()
    {
        GroupNameCollection all;
        for (const ConnectionModel* pConnection : _server.connections)
        {
            all.insert(pConnection->_subscription.begin(), pConnection->_subscription.end());
        }
        _sent += "Subscribed groups\n-----------------\n";
        for (const std::string& entry : all)
        {
            _sent += entry + "\n";
        }
        _sent += "\n";
    }

    std::string Serialized(const GroupNameCollection& entries) const
    {
        const Groups selected = StoreModel::Selected(entries, _server.store.settings);
        return _isPhp ? PhpArrayModel::TextOf(selected) : TextOf(settings::server::ToIni(selected));
    }

    void End()
    {
        _hasEnded = true;
        _subscription.clear();
    }

    ServerModel& _server;
    std::string _received;  // and not yet taken
    std::string _sent;
    GroupNameCollection _subscription;
    bool _isPhp = false;
    bool _hasEnded = false;
};

inline void ServerModel::Announce(const StoreModel::Announcement& announcement)
{
    for (ConnectionModel* pConnection : connections)
    {
        pConnection->Hear(announcement);
    }
}

}  // namespace korlo::fuzz

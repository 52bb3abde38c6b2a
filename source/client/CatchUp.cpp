#include "client/CatchUp.h"

#include <stdexcept>
#include <utility>

#include "common/Protocol.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::client
{

std::string_view KeywordOf(const std::string& line)
{
    if (line.empty())
    {
        throw std::runtime_error("Unexpected empty line returned from tcp connection with korlo-settings-server");
    }
    return common::FirstWord(line);
}

bool ReadNotification(std::istream& in, ChangeNotice& change)
{
    common::ResponseReader(in).ReadNotification(change.groups, change.settings);
    return in.good();
}

bool CatchUp::Read(std::istream& in, const GroupNameCollection& groups)
{
    for (std::string line; std::getline(in, line) && in.good();)
    {
        const std::string_view keyword = KeywordOf(line);
        if (keyword == common::word::Async)
        {
            ChangeNotice notified;
            if (ReadNotification(in, notified))
            {
                Keep(std::move(notified));
            }
        }
        else if (keyword == common::word::Data)
        {
            core::IniFile answer;
            common::ResponseReader(in).ReadSettings(answer);
            if (in.good())
            {
                _different = _missed.Find(groups, answer);
            }
            return in.good();
        }
        else
        {
            core::Logger::GetLogger("KorloSettings")->Error("Message received without corresponding request");
        }
    }
    return false;
}

/// A server that is asked by many at once may take its time to answer, and others go on changing.
void CatchUp::Keep(ChangeNotice&& notified)
{
    if (_notified.size() < MostNotifications)
    {
        _notified.push_back(std::move(notified));
        return;
    }
    ChangeNotice& last = _notified.back();
    for (const std::string& group : notified.groups)
    {
        last.settings.RemoveGroup(group);
    }
    last.settings.MergeSettings(notified.settings);
    last.groups.merge(notified.groups);
}

void CatchUp::Deliver()
{
    _missed.DeliverMissed(_different);
    for (const ChangeNotice& notified : _notified)
    {
        _missed.Deliver(notified);
    }
    _different = ChangeNotice();
    _notified = std::vector<ChangeNotice>();  // the connection may last for months
}

}  // namespace korlo::settings::client

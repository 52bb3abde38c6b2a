#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "ControlConnection.h"
#include "ControlProtocol.h"
#include "Interruption.h"
#include "Json.h"
#include "LoggedChange.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "korlo/osa/Mutex.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::cli
{
namespace
{

using Changes = std::vector<LoggedChange>;

Changes ChangesIn(const core::IniFile& answer)
{
    Changes changes;
    for (const auto& [group, values] : answer)
    {
        changes.emplace_back(group, values);
    }
    return changes;
}

/// With the names of the server's own answer; null for what is not known.
std::string JsonTextOf(const LoggedChange& change)
{
    using nlohmann::json;
    const auto orNull = [](const std::string& text) { return text.empty() ? json() : json(text); };
    return JsonOf(json{{"number", change.number},
                       {"time", change.time},
                       {"peer", orNull(change.peer)},
                       {"user", orNull(change.user)},
                       {"pid", change.process != 0 ? json(change.process) : json()},
                       {"program", orNull(change.program)},
                       {"operation", change.operation},
                       {"outcome", change.outcome},
                       {"groups", change.groups},
                       {"keys", change.keys},
                       {"more", change.more},
                       {"more.groups", change.moreGroups},
                       {"count", change.count}});
}

/// Prints what the patterns select, and says which entries came and went unseen.
///
/// Thread safety: none of its own; the owner guards it.
class LogPrinter
{
public:
    explicit LogPrinter(const Invocation& invocation) : _asJson(invocation.asJson)
    {
        _groups.AddNamesAndPatterns(
            NamesOf(invocation.operands.empty() ? std::vector<std::string>{"*"} : invocation.operands));
    }

    /// Prints the selected ones, or the last `most` of them; 0: all.
    void Print(Changes changes, unsigned long most)
    {
        ReportGaps(changes);
        std::erase_if(changes, [this](const LoggedChange& change) { return !IsSelected(change); });
        if (most != 0 && changes.size() > most)
        {
            changes.erase(changes.begin(), changes.end() - static_cast<std::ptrdiff_t>(most));
        }
        std::string text;
        for (const LoggedChange& change : changes)
        {
            text += _asJson ? JsonTextOf(change) : change.GetText() + '\n';
        }
        WriteOutput(text);
    }

private:
    /// Any of its groups is; one whose names are left out may be.
    bool IsSelected(const LoggedChange& change) const
    {
        GroupNameCollection matching;
        _groups.GetMatchingGroups(GroupNameCollection(change.groups.begin(), change.groups.end()), matching);
        return !matching.empty() || change.moreGroups > 0;
    }

    /// Numbers are given without gaps. What was seen before comes again when it is renewed.
    void ReportGaps(const Changes& changes)
    {
        std::uint64_t missed = 0;
        std::uint64_t before = 0;
        std::uint64_t after = 0;
        for (const LoggedChange& change : changes)
        {
            if (_last != 0 && change.number > _last + 1)
            {
                before = missed == 0 ? _last : before;
                after = change.number;
                missed += change.number - _last - 1;
            }
            _last = std::max(_last, change.number);
        }
        if (missed > 0)
        {
            WriteMessage("the journal no longer has " + std::to_string(missed) + " of the entries between " +
                         std::to_string(before) + " and " + std::to_string(after));
        }
    }

    const bool _asJson;
    common::GroupNameMatcher _groups;
    std::uint64_t _last = 0;  // the highest number so far
};

void Follow(ControlConnection& door, const Invocation& invocation)
{
    LogPrinter printer(invocation);
    printer.Print(ChangesIn(door.Ask(std::string(control::Follow) + " 0")), invocation.count);
    for (;;)
    {
        printer.Print(ChangesIn(door.ReadNext()), 0);
    }
}

/// Until it is interrupted, or the server ends, which is a failure.
void FollowUntilInterrupted(const Invocation& invocation)
{
    const Interruption interruption;
    ControlConnection::Limits limits;
    limits.waitMs = osa::Infinite;
    ControlConnection door(invocation.control, limits);
    std::exception_ptr pError;
    std::atomic<bool> hasFailed = false;
    std::thread reader([&] {
        try
        {
            Follow(door, invocation);
        }
        catch (...)
        {
            pError = std::current_exception();
            hasFailed = true;
            interruption.Raise();
        }
    });
    interruption.Wait(Interruption::NoInput);
    const bool isInterrupted = !hasFailed;
    door.Close();
    reader.join();
    if (!isInterrupted)
    {
        std::rethrow_exception(pError);
    }
}

}  // namespace

ExitStatus RunLog(const Invocation& invocation)
{
    try
    {
        if (invocation.follow)
        {
            FollowUntilInterrupted(invocation);
            return StatusDone;
        }
        const bool isCountAll = invocation.operands.empty() && invocation.count != 0;
        const std::string request =
            control::Journal + (isCountAll ? ' ' + std::to_string(invocation.count) : std::string());
        LogPrinter(invocation).Print(ChangesIn(ControlConnection(invocation.control).Ask(request)), invocation.count);
        return StatusDone;
    }
    catch (const ControlError& error)
    {
        throw Failure(StatusUnusable, Reason(error.what()));
    }
}

}  // namespace korlo::settings::cli

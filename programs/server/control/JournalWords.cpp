#include "control/JournalWords.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "ControlProtocol.h"
#include "NumberText.h"
#include "access/SystemUserDatabase.h"
#include "control/UtcTime.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::daemon
{
namespace
{

using settings::server::ChangedNames;
using settings::server::ChangeOutcome;

constexpr std::uint64_t AllEntries = std::numeric_limits<std::uint64_t>::max();

/// The operand as a number; nothing without one.
std::optional<std::uint64_t> OperandIn(const std::string& operands, const char* usage)
{
    if (operands.empty())
    {
        return std::nullopt;
    }
    const std::optional<std::uint64_t> number = NumberIn<std::uint64_t>(operands);
    if (!number)
    {
        throw osa::Exception("usage: %s", usage);
    }
    return number;
}

void CheckThereIs(const Journal* pJournal)
{
    if (pJournal == nullptr)
    {
        throw osa::Exception("the server was started with --journal 0: it keeps no journal");
    }
}

std::string GroupOf(std::uint64_t number)
{
    constexpr std::size_t digits = 10;
    const std::string text = std::to_string(number);
    return std::string(control::ChangePrefix) + std::string(digits - std::min(digits, text.size()), '0') + text;
}

const char* TextOf(ChangeOutcome outcome)
{
    switch (outcome)
    {
    case ChangeOutcome::Done:
        return "done";
    case ChangeOutcome::Refused:
        return "refused";
    case ChangeOutcome::Failed:
        return "failed";
    }
    return "";
}

/// The names of users, each looked up once.
using UserNames = std::map<uid_t, std::string>;

const std::string& NameOf(uid_t user, UserNames& names)
{
    const auto [place, isNew] = names.try_emplace(user);
    if (isNew)
    {
        place->second = NameOfUser(user);
    }
    return place->second;
}

void AddNames(const JournalEntry& entry, core::IniFile::KeyValueMap& values)
{
    std::size_t groups = 0;
    std::size_t keys = 0;
    std::string prefix;
    ChangedNames::Visit(
        entry.names,
        [&](std::string_view group) {
            values["group." + std::to_string(++groups)] = group;
            prefix = '[' + control::QuotedName(std::string(group)) + ']';
        },
        [&](std::string_view key) { (values["key." + std::to_string(++keys)] = prefix).append(key); });
    if (entry.more > 0)
    {
        values["more"] = std::to_string(entry.more);
    }
    if (entry.moreGroups > 0)
    {
        values["more.groups"] = std::to_string(entry.moreGroups);
    }
}

core::IniFile DocumentOf(const std::vector<JournalEntry>& entries)
{
    core::IniFile document;
    UserNames users;
    for (const JournalEntry& entry : entries)
    {
        core::IniFile::KeyValueMap& values = document[GroupOf(entry.number)];
        values["time"] = UtcText(std::chrono::system_clock::time_point(std::chrono::milliseconds(entry.timeMs)));
        values["operation"] = entry.what;
        values["outcome"] = TextOf(entry.outcome);
        values["count"] = std::to_string(entry.count);
        if (!entry.peer.empty())
        {
            values["peer"] = entry.peer;
        }
        if (entry.user)
        {
            values["user"] = NameOf(*entry.user, users);
        }
        if (entry.process != 0)
        {
            values["pid"] = std::to_string(entry.process);
        }
        if (!entry.program.empty())
        {
            values["program"] = entry.program;
        }
        AddNames(entry, values);
    }
    return document;
}

/// The last entries of a walk, at most so many.
std::vector<JournalEntry> ReadLast(const Journal& journal, Journal::Walk walk, std::uint64_t most)
{
    std::vector<JournalEntry> entries;
    while (journal.Read(walk, entries))
    {
    }
    if (entries.size() > most)
    {
        entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(most));
    }
    return entries;
}

/// Wakes a client that follows.
///
/// Thread safety: as IJournalListener.
class Follower : public IJournalListener
{
public:
    Follower(Journal& journal, IControlClient& client) : _journal(journal), _client(client) {}
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;
    ~Follower() override { _journal.Disarm(*this); }

    void OnEntry() override { _client.Wake(); }

private:
    Journal& _journal;
    IControlClient& _client;
};

/// Waits for an entry after the revision. False when the request is over.
bool WaitForEntry(Journal& journal, std::uint64_t revision, IControlClient& client)
{
    // A moment in which nobody is armed: whoever changes settings wakes a follower once in it.
    if (!client.Wait(FollowWord::MomentMs))
    {
        return false;
    }
    Follower follower(journal, client);
    journal.Arm(follower, revision);
    while (journal.GetRevision() == revision)
    {
        if (!client.Wait(osa::Infinite))
        {
            return false;
        }
    }
    return true;
}

}  // namespace

core::IniFile JournalWord::Answer(const std::string& operands)
{
    CheckThereIs(_pJournal);
    const std::uint64_t most = OperandIn(operands, "journal [N]").value_or(AllEntries);
    return DocumentOf(ReadLast(*_pJournal, {0, 0, _pJournal->GetLastNumber()}, most));
}

void FollowWord::Serve(const std::string& operands, IControlClient& client)
{
    CheckThereIs(_pJournal);
    const std::optional<std::uint64_t> after = OperandIn(operands, "follow [NUMBER]");
    std::uint64_t revision = _pJournal->GetRevision();
    std::vector<JournalEntry> entries;
    if (after)
    {
        entries = ReadLast(*_pJournal, {*after, 0, _pJournal->GetLastNumber()}, AllEntries);
    }
    // The first answer may be empty: it tells the client that it follows.
    while (client.Send(DocumentOf(std::exchange(entries, {}))))
    {
        // An entry that is dropped before it is found leaves this answer empty. One that is renewed while the answer is
        // made is in it, and may come with the next one once more.
        while (entries.empty())
        {
            if (!WaitForEntry(*_pJournal, revision, client))
            {
                return;
            }
            const std::uint64_t now = _pJournal->GetRevision();
            entries = ReadLast(*_pJournal, {0, revision, _pJournal->GetLastNumber()}, AllEntries);
            revision = now;
        }
    }
}

}  // namespace korlo::daemon

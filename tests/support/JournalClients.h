#pragma once
// Clients that enter changes in a journal, and what it says of them.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "journal/Journal.h"
#include "support/RecordingObserver.h"

namespace korlo::daemon
{

/// A client on a Unix-domain socket.
inline ClientOrigin UserClient(uid_t user, const std::string& program, int process = 1)
{
    ClientOrigin origin;
    origin.peer = "unix:/run/korlo-settings/socket";
    origin.user = user;
    origin.process = process;
    origin.program = program;
    origin.connection = process;
    return origin;
}

/// A client over TCP.
inline ClientOrigin TcpClient(std::int64_t connection)
{
    ClientOrigin origin;
    origin.peer = "192.0.2.1:4000";
    origin.connection = connection;
    return origin;
}

/// Groups with their keys, in order.
using Keys = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline settings::server::ChangedNames NamesOf(const Keys& keys)
{
    settings::server::ChangedNames names;
    for (const auto& [group, keysOfGroup] : keys)
    {
        names.AddGroup(group);
        for (const std::string& key : keysOfGroup)
        {
            names.AddKey(key);
        }
    }
    return names;
}

/// Enters a change, a merge unless the test says otherwise.
inline void Enter(Journal& journal, const ClientOrigin& origin, const Keys& keys,
                  settings::server::ChangeOutcome outcome = settings::server::ChangeOutcome::Done,
                  const char* what = settings::server::operation::Merge)
{
    journal.OnChange(&origin, what, outcome, NamesOf(keys));
}

/// All entries.
inline std::vector<JournalEntry> EntriesOf(const Journal& journal)
{
    std::vector<JournalEntry> entries;
    Journal::Walk walk{0, 0, journal.GetLastNumber()};
    while (journal.Read(walk, entries))
    {
    }
    return entries;
}

/// "3*2 [A]x [A]y": number, count and names of an entry.
inline std::string TextOf(const JournalEntry& entry)
{
    std::string text = std::to_string(entry.number) + '*' + std::to_string(entry.count);
    std::string group;
    bool isAlone = false;
    const auto finish = [&] { text += isAlone ? " [" + group + ']' : ""; };
    settings::server::ChangedNames::Visit(
        entry.names,
        [&](std::string_view name) {
            finish();
            group = name;
            isAlone = true;
        },
        [&](std::string_view key) {
            isAlone = false;
            text += " [" + group + ']' + std::string(key);
        });
    finish();
    return text;
}

inline std::vector<std::string> TextsOf(const Journal& journal)
{
    std::vector<std::string> texts;
    for (const JournalEntry& entry : EntriesOf(journal))
    {
        texts.push_back(TextOf(entry));
    }
    return texts;
}

}  // namespace korlo::daemon

#pragma once
// What the reader thread of a client finds out after a reconnection, before anybody else may use the connection.

#include <cstddef>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "client/MissedChanges.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::client
{

/// The first word of a line that a server says.
/// @throws std::runtime_error for an empty line, which no server says.
std::string_view KeywordOf(const std::string& line);

/// Reads what follows the first line of a notification, into a change that is empty. False when the connection was cut
/// inside it: what came of it tells nothing.
bool ReadNotification(std::istream& in, ChangeNotice& change);

/// One reconnection's missed changes, and the notifications that came before the answer which tells of them. Does
/// nothing unless it reads.
///
/// Thread safety: none of its own; the reader thread has it.
class CatchUp
{
public:
    /// How many notifications are kept one by one. Later ones are put together: each group has its last content.
    static constexpr std::size_t MostNotifications = 64;

    /// @param missed borrowed; must outlive this object.
    explicit CatchUp(MissedChanges& missed) : _missed(missed) {}

    /// Reads to the end of the answer to a get of `groups`, which was sent behind their subscription. False when the
    /// connection was lost before, and then there is nothing to deliver.
    bool Read(std::istream& in, const GroupNameCollection& groups);

    /// Calls the subscribers: with what differs, then with what was notified.
    void Deliver();

private:
    void Keep(ChangeNotice&& notified);

    MissedChanges& _missed;
    ChangeNotice _different;
    std::vector<ChangeNotice> _notified;
};

}  // namespace korlo::settings::client

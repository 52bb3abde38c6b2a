#pragma once
// The delivery of changes by a client that may lose its connection, and what its subscribers missed by that.

#include <istream>
#include <memory>

#include "client/KnownGroups.h"
#include "client/RemoteCommands.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/common/CallbackDispatcher.h"

namespace korlo::settings::client
{

/// A change as subscribers hear of it.
struct ChangeNotice
{
    GroupNameCollection groups;
    core::IniFile settings;  // the content of those that were not erased
};

/// Stands between a client and its dispatcher: all subscriptions, deliveries and reads pass here, so that, if anybody
/// wants it, the client can tell after a reconnection what its subscribers have missed. Until then it costs one lock
/// and remembers nothing.
///
/// `_mutex` makes one step of each change of the subscriptions, and of each delivery, with what is remembered of it. It
/// is taken before the dispatcher's mutex and, like that, held while callbacks run and taken again by those that
/// subscribe or unsubscribe; what they ask the client for (its send semaphore) comes inside both. Nobody takes it with
/// the send semaphore held but the reader thread, for Find, while no callback runs and no caller has the semaphore.
///
/// Thread safety: all methods, from any thread.
class MissedChanges
{
public:
    /// @param dispatcher borrowed; must outlive this object.
    explicit MissedChanges(common::CallbackDispatcher& dispatcher) : _mutex(nullptr), _dispatcher(dispatcher) {}

    /// Begins to remember, or forgets everything. Wanting what is wanted already changes nothing.
    void Report(bool isWanted) KORLO_EXCLUDES(_mutex);

    bool IsWanted() const KORLO_EXCLUDES(_mutex);

    /// As CallbackDispatcher::AddCallback.
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) KORLO_EXCLUDES(_mutex);
    void Unsubscribe(IChangeCallback* pCallback) KORLO_EXCLUDES(_mutex);

    /// What an application has read.
    void NoteRead(const GroupNameCollection& asked, const core::IniFile& answer) KORLO_EXCLUDES(_mutex);

    /// Calls the subscribers. What a callback throws passes out, and the change counts as missed.
    void Deliver(const ChangeNotice& change) KORLO_EXCLUDES(_mutex);

    /// What is to be delivered after a reconnection; nothing if nobody wants it.
    /// @param asked what was subscribed when it was read. @param answer what these groups hold now.
    ChangeNotice Find(const GroupNameCollection& asked, const core::IniFile& answer) const KORLO_EXCLUDES(_mutex);

    /// Calls the subscribers with what Find has found, unless nobody wants it any more. What a callback throws passes
    /// out, and the change counts as delivered, or one that always throws would never let the client come to rest; but
    /// where memory ran out it counts as missed.
    void DeliverMissed(const ChangeNotice& missed) KORLO_EXCLUDES(_mutex);

private:
    void EndDelivery(const ChangeNotice& change) noexcept KORLO_REQUIRES(_mutex);

    mutable osa::Mutex _mutex;
    common::CallbackDispatcher& _dispatcher;
    std::unique_ptr<KnownGroups> _pKnown KORLO_GUARDED_BY(_mutex);  // null while nobody wants it
};

/// A get whose answer is noted where it is read, in its place between the notifications.
///
/// Thread safety: as RemoteCommand.
class NotedGet : public GetSettingsCommand
{
public:
    /// @param missed borrowed; must outlive the command.
    NotedGet(const GroupNameCollection* pGroups, core::IniFile* pResult, MissedChanges& missed)
        : GetSettingsCommand(pGroups, pResult),
          _missed(missed)
    {
    }

    bool HandleResponse(std::istream& in) override;

private:
    MissedChanges& _missed;
};

}  // namespace korlo::settings::client

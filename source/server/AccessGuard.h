#pragma once
// What one connection shows its client, and which changes it lets through.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "common/Refusal.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/IChangeObserver.h"
#include "settings/server/IClientAccess.h"

namespace korlo::settings::server
{

/// Stands between a ClientHandler and the store, which knows nothing of clients. What the client may not read is taken
/// out of what it is sent, as if it were not there; a change that it may not make is refused as a whole.
///
/// The first change that was refused is kept until the client asks for it, by the exact name of RefusedGroup. No client
/// can store anything there, since the name is restricted, and none sees what another was refused.
///
/// Thread safety: belongs to the thread that serves the client's requests, but GetRights, HideUnreadable and
/// MayHearOf, which any thread may call.
class AccessGuard
{
public:
    using Rights = std::shared_ptr<const IAccessRights>;

    static constexpr const char* RefusedGroup = common::RefusedGroup;
    static constexpr std::size_t MostRefusedNames = 64;
    static constexpr std::size_t MostRefusedBytes = 64 * 1024;  ///< of all of them; a name beyond that is left out

    /// @param pAccess borrowed, may be null: everything is allowed then.
    /// @param pObserver hears of each change that is refused, by `pOrigin`; both borrowed, may be null.
    explicit AccessGuard(IClientAccess* pAccess, IChangeObserver* pObserver = nullptr,
                         const ChangeOrigin* pOrigin = nullptr);

    /// What the client may do now: one set of rights decides about all of a request, or of a notification. They are
    /// held until what they decide about has been written: who takes rights away can wait for that.
    Rights GetRights() const { return _pAccess->GetRights(); }

    /// True when the answer to a read needs nothing taken out or put in: everything that is selected may be read.
    bool ReadsAsAsked(const IAccessRights& rights, const common::GroupNameMatcher& matcher) const;

    /// Makes `settings`, what the store holds of the groups that `matcher` selects, what the client is to see of it;
    /// adds what was refused, and forgets it, where the matcher names it exactly.
    void Answer(const IAccessRights& rights, const common::GroupNameMatcher& matcher, core::IniFile& settings);

    /// Takes the groups that may not be read out of `settings`, which may be a user layer: entries of the record of
    /// erased groups are taken out of it, too, and those that are left are numbered anew.
    static void HideUnreadable(const IAccessRights& rights, core::IniFile& settings);

    /// False for a changed group that the client is not told of. It hears of the record of erased groups only if it may
    /// read everything: a restore that removes the record would else tell that there are entries it must not see.
    static bool MayHearOf(const IAccessRights& rights, const std::string& group);

    // May the client make the change? One that it may not make is noted and reported. Restricted groups in a document
    // do not count: the store drops them.

    /// @param operation "merge" or "merge nopersist".
    bool AllowsMerge(const char* operation, const core::IniFile& changes);

    /// A group that is tested must be readable, and the record of erased groups to its last entry: else the outcome
    /// would tell what it holds.
    bool AllowsTestAndMerge(const core::IniFile& expected, const core::IniFile& changes);
    bool AllowsOverwrite(const GroupNameCollection& namesAndPatterns, const core::IniFile& replacement);
    bool AllowsRestore(const common::GroupNameMatcher& namesAndPatterns);

private:
    /// What a change asks for: entries and groups, in up to two lists, and a document.
    struct Request
    {
        const char* operation;
        const core::IniFile* pChanges = nullptr;
        const GroupNameCollection* pEntries = nullptr;
        const GroupNameCollection* pMoreEntries = nullptr;
    };

    bool Allows(const Request& request, const GroupNameCollection& refused);
    void Report(const Request& request, const GroupNameCollection& refused) const;
    void KeepFirst(const char* operation, const GroupNameCollection& refused);

    FullAccess _fullAccess;
    IClientAccess* const _pAccess;
    IChangeObserver* const _pObserver;
    const ChangeOrigin* const _pOrigin;
    std::optional<core::IniFile::KeyValueMap> _refused;  // what RefusedGroup answers; none: nothing was refused
};

}  // namespace korlo::settings::server

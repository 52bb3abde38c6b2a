#pragma once
// A change that the server's access rules do not allow.

#include <string>

#include "korlo/osa/Exception.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings
{

/// The server refused a change, since its access rules do not allow it to this client. Nothing of the change was made,
/// and the client goes on working. Trying again is of no use until the rules change.
///
/// A client made by KorloSettingsClient::Confirming throws it, and a ResourceManager over any client. Other clients are
/// not told: to them a refused change looks like one that was made, and a refused TestAndMerge like one that found
/// other values.
///
///     catch (const RefusedException& refused) { ShowWhoMayNot(refused.GetGroups()); }
///
/// Thread safety: as osa::Exception.
class RefusedException : public osa::Exception
{
public:
    /// @param operation what was refused: "merge", "merge nopersist", "test-and-merge", "overwrite" or "restore".
    /// @param groups what GetGroups returns.
    RefusedException(const std::string& operation, const GroupNameCollection& groups);
    ~RefusedException() override;

    /// The groups that this client may not change, or in a TestAndMerge not read, and the patterns, as it named them:
    /// the first 64, or fewer where they are very long. Valid as long as the exception is.
    const GroupNameCollection& GetGroups() const noexcept { return _groups; }

private:
    GroupNameCollection _groups;
};

}  // namespace korlo::settings

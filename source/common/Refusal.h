#pragma once
// How a server tells a client of a change that it refused.

#include <optional>
#include <string>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::common
{

/// The group that holds the first change of a connection that was refused since that connection last read it. It is
/// empty when none was, and of a server without access rules.
inline constexpr const char* RefusedGroup = "KorloSettings/Trusted/Refused";

// Its keys: one for the operation, and one with a number behind it, from 1, for each name or pattern.
inline constexpr const char* RefusedOperationKey = "operation";
inline constexpr const char* RefusedNameKey = "group.";

/// A change that was refused.
///
/// Thread safety: none of its own; the owner guards it.
struct Refusal
{
    /// What the answer to a read of RefusedGroup says; nothing when it says nothing of a refusal.
    static std::optional<Refusal> FindIn(const core::IniFile& answer);

    std::string operation;
    GroupNameCollection groups;  // the names and patterns that were not allowed, as the client named them
};

}  // namespace korlo::settings::common

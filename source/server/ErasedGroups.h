#pragma once
// Where the user layer records which groups were erased.

namespace korlo::settings::server
{

// Not a string: a store may be a global, loaded before globals of this library would be made and used after they are
// gone.
inline constexpr const char* ErasedGroups = "KorloSettings/Data/DeletedGroups";

}  // namespace korlo::settings::server

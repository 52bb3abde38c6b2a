#pragma once
// How much a store holds.

#include <cstddef>

namespace korlo::settings::server
{

/// Of the current settings, as those see them who may read everything.
///
/// Thread safety: none of its own; the owner guards it.
struct StoreFigures
{
    std::size_t groups = 0;   ///< empty ones included
    std::size_t keys = 0;     ///< of all groups
    std::size_t bytes = 0;    ///< of the names of groups, the keys and the values together
    std::size_t changes = 0;  ///< that were made since the store was loaded, whether they altered anything or not
};

}  // namespace korlo::settings::server

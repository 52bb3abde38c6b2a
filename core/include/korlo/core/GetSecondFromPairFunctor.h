#pragma once
// The values of a map, for standard algorithms.

#include <utility>

namespace korlo::core
{

/// Yields the second member of a pair, such as the value of a map's element.
///
///     std::transform(map.begin(), map.end(), std::back_inserter(values), GetSecondFromPairFunctor<K, V>());
///
/// Thread safety: all methods, from any thread; it has no state.
template <typename K, typename V>
struct GetSecondFromPairFunctor
{
    /// The pair's own member, by reference: it lives as long as the pair.
    const V& operator()(const std::pair<const K, V>& pair) const { return pair.second; }
};

}  // namespace korlo::core

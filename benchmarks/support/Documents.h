#pragma once
// The documents that everything is measured on.

#include <benchmark/benchmark.h>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "korlo/core/IniFile.h"

namespace korlo::benchmarks
{

/// The plainest thing that could hold a document, filled by a plain hand-written parser.
using BareMap = std::map<std::string, std::map<std::string, std::string>>;

struct Shape
{
    const char* name;
    std::size_t groups;
    std::size_t keysEach;  // about 14 bytes, with values of about 20
};

inline constexpr Shape Device{"device", 600, 12};
inline constexpr Shape Large{"large", 20000, 10};

/// INI text in the order of its names.
const std::string& TextOf(const Shape& shape);
const core::IniFile& DocumentOf(const Shape& shape);

/// INI text of one group whose keys come in random order.
std::string ShuffledGroup(std::size_t keys);

/// A document of `groups` groups of 10 keys, 64 of which are named "Network/..." whatever their number.
core::IniFile StoreDocument(std::size_t groups);

BareMap ParseBare(const std::string& text);

/// For benchmark::Benchmark::Setup: nobody pays for the holes that the benchmark before left in the heap.
void CleanHeap(const benchmark::State&);

/// Group and key of present values, in random order.
std::vector<std::pair<std::string, std::string>> PresentKeys(const core::IniFile& ini, std::size_t count);

}  // namespace korlo::benchmarks

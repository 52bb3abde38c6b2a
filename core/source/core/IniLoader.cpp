#include "core/IniLoader.h"

#include <algorithm>

#include "korlo/core/Logger.h"

namespace korlo::core
{
namespace
{

// A hostile peer must not fill the log of a device with one message a line.
constexpr std::size_t MostWarnings = 100;

constexpr std::size_t UsualPairs = 16;  // of a group: one allocation instead of five

const Logger& Log()
{
    static const Logger* const pLogger = Logger::GetLogger("IniFile");
    return *pLogger;
}

constexpr auto ByFirst = [](const auto& left, const auto& right) { return left.first < right.first; };

/// Of pairs in order, keeps the last of each run of equal keys: the later line wins.
template <typename Pairs>
void KeepLastOfEqualKeys(Pairs& pairs)
{
    auto kept = pairs.begin();
    for (auto pair = pairs.begin(); pair != pairs.end(); ++pair)
    {
        const auto next = std::next(pair);
        if (next == pairs.end() || next->first != pair->first)
        {
            *kept++ = *pair;
        }
    }
    pairs.erase(kept, pairs.end());
}

}  // namespace

void IniLoader::OnGroup(std::string_view name)
{
    FinishSection();
    _sectionsAscend = _sectionsAscend && (_sections.empty() || _sections.back().first < name);
    _name = name;
    _inSection = true;
}

void IniLoader::OnValue(std::string_view key, std::string_view value)
{
    if (_pairs.capacity() == 0)
    {
        _pairs.reserve(UsualPairs);
    }
    _pairsAscend = _pairsAscend && (_pairs.empty() || _pairs.back().first < key);
    _pairs.emplace_back(key, value);
}

void IniLoader::OnBadLine(std::size_t number, const char* reason)
{
    if (++_badLines > MostWarnings)
    {
        return;
    }
    if (_source == nullptr)
    {
        Log().Warning("INI text, line %zu is skipped: %s", number, reason);
    }
    else
    {
        Log().Warning("%s:%zu: the line is skipped: %s", _source, number, reason);
    }
}

IniFile::GroupMap IniLoader::TakeGroups()
{
    FinishSection();
    if (_badLines > MostWarnings)
    {
        Log().Warning("%s: %zu more lines are skipped", _source == nullptr ? "INI text" : _source,
                      _badLines - MostWarnings);
    }
    if (!_sectionsAscend)
    {
        std::stable_sort(_sections.begin(), _sections.end(), ByFirst);
    }
    IniFile::GroupMap::Builder groups(_sections.size());
    for (auto section = _sections.begin(); section != _sections.end();)
    {
        auto next = std::next(section);
        for (; next != _sections.end() && next->first == section->first; ++next)
        {
            for (auto& [key, value] : next->second)
            {
                section->second.insert_or_assign(key, std::move(value));
            }
        }
        groups.Append(section->first, std::move(section->second));
        section = next;
    }
    return std::move(groups).Build();
}

void IniLoader::FinishSection()
{
    if (_inSection)
    {
        _sections.emplace_back(_name, BuildSection());
        _pairs.clear();
        _pairsAscend = true;
    }
}

IniFile::KeyValueMap IniLoader::BuildSection()
{
    if (!_pairsAscend)
    {
        std::stable_sort(_pairs.begin(), _pairs.end(), ByFirst);
        KeepLastOfEqualKeys(_pairs);
    }
    IniFile::KeyValueMap::Builder values(_pairs.size());
    for (const auto& [key, value] : _pairs)
    {
        values.Append(key, value);
    }
    return std::move(values).Build();
}

}  // namespace korlo::core

#include "client/KnownGroups.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "korlo/core/StringUtil.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::client
{
namespace
{

using core::IniFile;
using core::StringUtil;

constexpr std::uint64_t FnvOffset = 0xcbf29ce484222325;
constexpr std::uint64_t FnvPrime = 0x100000001b3;
constexpr unsigned int BitsPerByte = 8;

bool IsPattern(const std::string& entry)
{
    return entry.find('*') != std::string::npos;
}

bool AnyMatches(const GroupNameCollection& patterns, const std::string& group)
{
    return std::any_of(patterns.begin(), patterns.end(),
                       [&group](const std::string& pattern) { return StringUtil::MatchesPattern(pattern, group); });
}

void AddByte(std::uint64_t& digest, unsigned char byte)
{
    digest = (digest ^ byte) * FnvPrime;
}

void AddText(std::uint64_t& digest, std::string_view text)
{
    for (std::uint64_t length = text.size(), rest = sizeof(length); rest > 0; --rest, length >>= BitsPerByte)
    {
        AddByte(digest, static_cast<unsigned char>(length));
    }
    for (const char character : text)
    {
        AddByte(digest, static_cast<unsigned char>(character));
    }
}

}  // namespace

KnownGroups::Digest KnownGroups::DigestOf(const IniFile::KeyValueMap& group)
{
    std::uint64_t digest = FnvOffset;
    for (const auto& [key, value] : group)
    {
        AddText(digest, key);
        AddText(digest, value);
    }
    return std::max(digest, Undelivered + 1);
}

void KnownGroups::NoteRead(const GroupNameCollection& asked, const IniFile& answer) noexcept
{
    try
    {
        RememberRead(asked, answer);
    }
    catch (...)
    {
        ForgetReads();  // what is left of them may be older than what the caller has read now
    }
}

void KnownGroups::RememberRead(const GroupNameCollection& asked, const IniFile& answer)
{
    GroupNameCollection patterns;
    Digests read;
    for (const std::string& entry : asked)
    {
        if (IsPattern(entry))
        {
            patterns.insert(patterns.end(), entry);
        }
        else if (!_dispatcher.IsAskedFor(entry))
        {
            read[entry] = Absent;  // unless the answer has it
        }
    }
    // Of a group that is subscribed to, what was delivered counts: a read may have overtaken the notification.
    for (const auto& [group, values] : answer)
    {
        if (!_dispatcher.IsAskedFor(group))
        {
            read[group] = DigestOf(values);
        }
    }
    std::erase_if(_read,
                  [&](const auto& entry) { return read.contains(entry.first) || AnyMatches(patterns, entry.first); });
    if (_read.size() + _readPatterns.size() + read.size() + patterns.size() > MostReads)
    {
        ForgetReads();
    }
    _read.merge(read);
    _readPatterns.merge(patterns);
}

void KnownGroups::NoteSubscription(const GroupNameCollection& asked)
{
    for (const std::string& entry : asked)
    {
        if (IsPattern(entry))
        {
            TakeOver(entry, asked);
        }
        else if (auto read = _read.extract(entry))
        {
            _known.insert(std::move(read));
        }
        else if (!_dispatcher.IsAskedFor(entry) && AnyMatches(_readPatterns, entry))
        {
            _known.emplace(entry, Absent);
        }
    }
}

/// What was read of the groups that the pattern matches becomes known, but for those that were not there: nobody could
/// say when to forget them, except of those that are asked for by name, too.
void KnownGroups::TakeOver(const std::string& pattern, const GroupNameCollection& asked) noexcept
{
    for (auto entry = _read.begin(); entry != _read.end();)
    {
        const auto next = std::next(entry);
        if (StringUtil::MatchesPattern(pattern, entry->first))
        {
            auto read = _read.extract(entry);
            if (read.mapped() != Absent || asked.contains(read.key()))
            {
                _known.insert(std::move(read));
            }
        }
        entry = next;
    }
}

void KnownGroups::NoteUnsubscription() noexcept
{
    std::erase_if(_known, [this](const auto& entry) {
        return !_dispatcher.IsAskedFor(entry.first) ||
               (entry.second == Absent && !_dispatcher.IsAskedForByName(entry.first));
    });
    _readPatterns.clear();  // a group that is forgotten here may have come after those reads
}

void KnownGroups::BeginDelivery(const GroupNameCollection& groups)
{
    // Until the callbacks have returned: one that throws must hear of the change again after the next reconnect.
    for (const std::string& group : groups)
    {
        if (_dispatcher.IsAskedFor(group))
        {
            _known[group] = Undelivered;
        }
    }
}

void KnownGroups::EndDelivery(const GroupNameCollection& groups, const IniFile& settings) noexcept
{
    for (const std::string& group : groups)
    {
        const auto known = _known.find(group);
        if (known == _known.end())
        {
            continue;  // nobody asked for it, or its last subscriber has gone during the delivery
        }
        const auto delivered = settings.Find(group);
        known->second = delivered == settings.end() ? Absent : DigestOf(delivered->second);
        if (known->second == Absent && !_dispatcher.IsAskedForByName(group))
        {
            _known.erase(known);
        }
    }
}

GroupNameCollection KnownGroups::FindDifferent(const GroupNameCollection& asked, const IniFile& answer) const
{
    GroupNameCollection different;
    for (const auto& [group, values] : answer)
    {
        const auto known = _known.find(group);
        if (known == _known.end() ? _dispatcher.IsAskedFor(group) : known->second != DigestOf(values))
        {
            different.insert(group);
        }
    }
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(asked);
    GroupNameCollection gone;
    for (const auto& [group, digest] : _known)
    {
        if (digest != Absent && !answer.HasGroup(group))
        {
            gone.insert(gone.end(), group);
        }
    }
    matcher.GetMatchingGroups(gone, different);
    for (const std::string& name : matcher.GetNames())
    {
        if (!answer.HasGroup(name) && !_known.contains(name) && _dispatcher.IsAskedForByName(name))
        {
            different.insert(name);
        }
    }
    return different;
}

void KnownGroups::ForgetReads() noexcept
{
    _read.clear();
    _readPatterns.clear();
}

}  // namespace korlo::settings::client

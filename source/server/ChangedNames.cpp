#include "settings/server/ChangedNames.h"

#include <algorithm>
#include <functional>

namespace korlo::settings::server
{
namespace
{

// A packed list is a sequence of names: two bytes, the kind and the length, and the name.
constexpr unsigned int Group = 0x80;
constexpr unsigned int Key = 0;
constexpr std::size_t HeadBytes = 2;
static_assert(ChangedNames::MostBytes <= 0x7FFF);

/// Reads a packed list name by name.
///
/// Thread safety: none of its own; the owner guards it.
class Reader
{
public:
    explicit Reader(std::string_view packed) : _rest(packed) { Read(); }

    bool IsAtEnd() const { return _isAtEnd; }
    bool IsAtKey() const { return !_isAtEnd && !_isGroup; }
    std::string_view GetName() const { return _name; }

    void Next()
    {
        _rest.remove_prefix(HeadBytes + _name.size());
        Read();
    }

    void SkipKeys()
    {
        while (IsAtKey())
        {
            Next();
        }
    }

private:
    void Read()
    {
        _isAtEnd = _rest.empty();
        if (!_isAtEnd)
        {
            const auto head = static_cast<unsigned char>(_rest[0]);
            const auto tail = static_cast<unsigned char>(_rest[1]);
            _isGroup = (head & Group) != 0;
            _name = _rest.substr(HeadBytes, (head & ~Group) * 256u + tail);
        }
    }

    std::string_view _rest;
    std::string_view _name;
    bool _isGroup = false;
    bool _isAtEnd = false;
};

/// Both stand behind one group's name. Leaves them behind its keys, unless there is a common one.
bool HaveCommonKey(Reader& left, Reader& right)
{
    if (!left.IsAtKey() || !right.IsAtKey())
    {
        return true;  // the group itself has changed
    }
    while (left.IsAtKey() && right.IsAtKey())
    {
        if (left.GetName() == right.GetName())
        {
            return true;
        }
        (left.GetName() < right.GetName() ? left : right).Next();
    }
    return false;
}

/// One walk over both lists, which are in order. True as soon as `isCommon` says so of a group that both name.
template <typename IsCommon>
bool FindCommonGroup(std::string_view leftPacked, std::string_view rightPacked, const IsCommon& isCommon)
{
    Reader left(leftPacked);
    Reader right(rightPacked);
    while (!left.IsAtEnd() && !right.IsAtEnd())
    {
        if (left.GetName() != right.GetName())
        {
            Reader& lesser = left.GetName() < right.GetName() ? left : right;
            lesser.Next();
            lesser.SkipKeys();
            continue;
        }
        left.Next();
        right.Next();
        if (isCommon(left, right))
        {
            return true;
        }
        left.SkipKeys();
        right.SkipKeys();
    }
    return false;
}

}  // namespace

void ChangedNames::AddGroup(std::string_view group)
{
    Digest(group, Group);
    _lastGroupSize = group.size();
    _isLastListed = group.size() <= MostBytes - _groupBytes;
    _isLastAlone = !_isLastListed;
    if (_isLastListed)
    {
        _groupBytes += group.size();
        Append(group, Group);
        return;
    }
    ++_moreGroups;
    ++_more;
}

void ChangedNames::AddKey(std::string_view key)
{
    constexpr std::size_t brackets = 2;
    Digest(key, Key);
    if (_isLastAlone)
    {
        _isLastAlone = false;
        --_more;
    }
    const std::size_t bytes = _lastGroupSize + brackets + key.size();
    if (!_isLastListed || bytes > MostBytes - _keyBytes)
    {
        ++_more;
        return;
    }
    _keyBytes += bytes;
    Append(key, Key);
}

void ChangedNames::Append(std::string_view name, unsigned int kind)
{
    _packed += static_cast<char>(kind | (name.size() >> 8u));
    _packed += static_cast<char>(name.size() & 0xFFu);
    _packed += name;
}

void ChangedNames::Digest(std::string_view name, std::size_t kind)
{
    constexpr std::size_t factor = 0x9E3779B1u;  // odd, so that no earlier name is lost
    const std::size_t hash = std::hash<std::string_view>()(name) + kind;
    _digest = std::max<std::size_t>((_digest ^ hash) * factor + hash, 1);
}

void ChangedNames::Visit(std::string_view packed, const OnName& onGroup, const OnName& onKey)
{
    for (Reader reader(packed); !reader.IsAtEnd(); reader.Next())
    {
        (reader.IsAtKey() ? onKey : onGroup)(reader.GetName());
    }
}

bool ChangedNames::HaveCommonName(std::string_view leftPacked, std::string_view rightPacked)
{
    return FindCommonGroup(leftPacked, rightPacked, HaveCommonKey);
}

bool ChangedNames::HaveCommonGroup(std::string_view leftPacked, std::string_view rightPacked)
{
    return FindCommonGroup(leftPacked, rightPacked, [](const Reader&, const Reader&) { return true; });
}

}  // namespace korlo::settings::server

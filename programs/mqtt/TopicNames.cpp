#include "TopicNames.h"

#include "NumberText.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr std::size_t EscapeBytes = 3;

/// RFC 3986, whatever the locale.
bool IsUnreserved(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9') || std::string_view("-._~").find(character) != std::string_view::npos;
}

std::string RootOf(std::string_view device)
{
    return "korlo/1/" + EncodeName(device);
}

}  // namespace

std::string EncodeName(std::string_view name)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    constexpr unsigned int bitsOfDigit = 4;
    constexpr unsigned int lowDigit = 0xF;
    std::string level;
    for (const char character : name)
    {
        if (IsUnreserved(character))
        {
            level += character;
            continue;
        }
        const unsigned int byte = static_cast<unsigned char>(character);
        level += '%';
        level += digits[byte >> bitsOfDigit];
        level += digits[byte & lowDigit];
    }
    return level;
}

std::optional<std::string> DecodeName(std::string_view level)
{
    constexpr int hexadecimal = 16;
    std::string name;
    for (std::size_t at = 0; at < level.size(); ++at)
    {
        if (level[at] != '%')
        {
            name += level[at];
            continue;
        }
        const std::optional<unsigned char> byte =
            NumberIn<unsigned char>(level.substr(at, EscapeBytes).substr(1), hexadecimal);
        if (!byte)
        {
            return std::nullopt;
        }
        name += static_cast<char>(*byte);
        at += EscapeBytes - 1;
    }
    // Two forms of one name would be two topics of one group.
    return EncodeName(name) == level ? std::optional(name) : std::nullopt;
}

TopicNames::TopicNames(std::string_view device)
    : _status(RootOf(device) + "/status"),
      _groups(RootOf(device) + "/group/")
{
}

std::string TopicNames::OfLevel(std::string_view level, std::string_view end) const
{
    return std::string(_groups).append(level).append(end);
}

TopicNames::Parts TopicNames::Parse(std::string_view topic) const
{
    if (topic == _status)
    {
        return {Status, "", std::nullopt};
    }
    if (!topic.starts_with(_groups))
    {
        return {};
    }
    topic.remove_prefix(_groups.size());
    const std::string_view level = topic.substr(0, topic.find('/'));
    topic.remove_prefix(level.size());
    if (topic == ReportedEnd || topic == DesiredEnd)
    {
        return {topic == ReportedEnd ? Reported : Desired, std::string(level), DecodeName(level)};
    }
    return {};
}

}  // namespace korlo::settings::mqtt

#include "access/GroupPatterns.h"

#include <algorithm>
#include <cstring>

namespace korlo::daemon
{
namespace
{

constexpr auto None = std::string_view::npos;

/// True when the pieces of `middle`, which asterisks separate, stand in `text` one behind the other. Each is taken
/// where it comes first: that leaves the most for the next. memmem is linear, whatever the texts hold, and nothing is
/// looked at twice.
bool HoldsInOrder(std::string_view text, std::string_view middle)
{
    while (!middle.empty())
    {
        const std::size_t length = std::min(middle.find('*'), middle.size());
        const void* const pFound = ::memmem(text.data(), text.size(), middle.data(), length);
        if (pFound == nullptr)
        {
            return false;
        }
        const char* const pBehind = static_cast<const char*>(pFound) + length;
        text.remove_prefix(static_cast<std::size_t>(pBehind - text.data()));
        middle.remove_prefix(std::min(length + 1, middle.size()));
    }
    return true;
}

}  // namespace

bool Covers(std::string_view pattern, std::string_view entry)
{
    const std::size_t first = pattern.find('*');
    if (first == None)
    {
        return pattern == entry;
    }
    const std::size_t last = pattern.rfind('*');
    const std::string_view end = pattern.substr(last + 1);
    if (entry.size() < first + end.size() || !entry.starts_with(pattern.substr(0, first)) || !entry.ends_with(end))
    {
        return false;
    }
    const std::string_view middle = first == last ? std::string_view() : pattern.substr(first + 1, last - first - 1);
    return HoldsInOrder(entry.substr(first, entry.size() - first - end.size()), middle);
}

bool Meet(std::string_view left, std::string_view right)
{
    const std::size_t leftStar = left.find('*');
    const std::size_t rightStar = right.find('*');
    if (leftStar == None || rightStar == None)
    {
        return leftStar == None ? Covers(right, left) : Covers(left, right);
    }
    const std::string_view leftBegin = left.substr(0, leftStar);
    const std::string_view rightBegin = right.substr(0, rightStar);
    const std::string_view leftEnd = left.substr(left.rfind('*') + 1);
    const std::string_view rightEnd = right.substr(right.rfind('*') + 1);
    return (leftBegin.starts_with(rightBegin) || rightBegin.starts_with(leftBegin)) &&
           (leftEnd.ends_with(rightEnd) || rightEnd.ends_with(leftEnd));
}

std::string WithoutRepeatedStars(const std::string& pattern)
{
    std::string text = pattern;
    const auto bothStars = [](char left, char right) { return left == '*' && right == '*'; };
    text.erase(std::unique(text.begin(), text.end(), bothStars), text.end());
    return text;
}

}  // namespace korlo::daemon

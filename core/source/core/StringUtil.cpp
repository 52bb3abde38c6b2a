#include "korlo/core/StringUtil.h"

#include <charconv>
#include <string_view>

#include "FindText.h"

namespace korlo::core
{

bool StringUtil::MatchesPattern(const std::string& pattern, const std::string& text)
{
    std::string_view wanted = pattern;
    std::string_view rest = text;

    // 1. Up to the first star, and behind the last one, everything stands for itself.
    for (; !wanted.empty() && wanted.front() != '*'; wanted.remove_prefix(1), rest.remove_prefix(1))
    {
        if (rest.empty() || rest.front() != wanted.front())
        {
            return false;
        }
    }
    if (wanted.empty())
    {
        return rest.empty();
    }
    for (; wanted.back() != '*'; wanted.remove_suffix(1), rest.remove_suffix(1))
    {
        if (rest.empty() || rest.back() != wanted.back())
        {
            return false;
        }
    }

    // 2. What lies between two stars is taken where it occurs first: further on there would be less left for the rest.
    for (wanted.remove_prefix(1); !wanted.empty();)
    {
        const std::string_view literal = wanted.substr(0, wanted.find('*'));
        const std::size_t found = FindText(rest, literal);
        if (found == std::string_view::npos)
        {
            return false;
        }
        rest.remove_prefix(found + literal.size());
        wanted.remove_prefix(literal.size() + 1);
    }
    return true;
}

void StringUtil::Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                       unsigned int maxParts)
{
    out.clear();
    std::size_t begin = 0;
    while (out.size() < maxParts)
    {
        const bool isLast = out.size() + 1 == maxParts;
        const std::size_t end = isLast ? std::string::npos : text.find_first_of(delimiters, begin);
        if (end == std::string::npos)
        {
            out.push_back(text.substr(begin));
            return;
        }
        out.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
}

bool StringUtil::TryParse(const std::string& text, int& out)
{
    const char* const pEnd = text.data() + text.size();
    int parsed = 0;
    const auto [pStop, error] = std::from_chars(text.data(), pEnd, parsed);
    if (error != std::errc() || pStop != pEnd)
    {
        return false;
    }
    out = parsed;
    return true;
}

}  // namespace korlo::core

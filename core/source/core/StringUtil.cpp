#include "korlo/core/StringUtil.h"

#include <charconv>

namespace korlo::core
{

bool StringUtil::MatchesPattern(const std::string& pattern, const std::string& text)
{
    std::size_t inPattern = 0;
    std::size_t inText = 0;
    std::size_t afterStar = std::string::npos;  // where the pattern goes on after the last '*' met
    std::size_t starEnd = 0;                    // where the run that this '*' stands for ends, so far

    while (inText < text.size())
    {
        if (inPattern < pattern.size() && pattern[inPattern] == '*')
        {
            afterStar = ++inPattern;
            starEnd = inText;
            if (afterStar == pattern.size())
            {
                return true;  // a '*' at the end takes whatever follows
            }
        }
        else if (inPattern < pattern.size() && pattern[inPattern] == text[inText])
        {
            ++inPattern;
            ++inText;
        }
        else if (afterStar != std::string::npos)
        {
            // Only the last '*' need grow: one before it, grown, would leave less text for the same rest of the
            // pattern.
            inPattern = afterStar;
            inText = ++starEnd;
        }
        else
        {
            return false;
        }
    }
    return pattern.find_first_not_of('*', inPattern) == std::string::npos;
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

#include "FindText.h"

#include <algorithm>

// The two-way search of Crochemore and Perrin. The wanted text is cut in two so that, wherever it is held against the
// text,
//
//   a right part that differs at some place lets the search go on behind that place, since no shift that is smaller
//     could make what was compared so far fit again;
//   a right part that fits and a left part that does not lets it go on by the period of the wanted text.
//
// Each character of the text is looked at twice at most.

namespace korlo::core
{
namespace
{

struct Cut
{
    std::size_t at;      // how long the left part is
    std::size_t period;  // of the right part
};

/// The cut before the suffix that is the last one in the order of the alphabet, or in its reverse.
Cut CutAtGreatestSuffix(std::string_view wanted, bool isReversed)
{
    std::size_t greatest = 0;  // where the greatest suffix so far begins
    std::size_t rival = 1;     // where the one that is compared with it begins
    std::size_t equal = 0;     // so many characters of the two are the same
    std::size_t period = 1;
    while (rival + equal < wanted.size())
    {
        const char ours = wanted[greatest + equal];
        const char theirs = wanted[rival + equal];
        if (ours == theirs)
        {
            if (++equal == period)
            {
                rival += period;
                equal = 0;
            }
        }
        else if ((theirs < ours) != isReversed)
        {
            rival += equal + 1;
            equal = 0;
            period = rival - greatest;
        }
        else
        {
            greatest = rival++;
            equal = 0;
            period = 1;
        }
    }
    return {greatest, period};
}

}  // namespace

std::size_t FindLongText(std::string_view text, std::string_view wanted)
{
    const Cut forward = CutAtGreatestSuffix(wanted, false);
    const Cut backward = CutAtGreatestSuffix(wanted, true);
    const Cut cut = forward.at > backward.at ? forward : backward;
    const std::string_view left = wanted.substr(0, cut.at);

    // Where the left part repeats with the right one's period, all of the wanted text does: after a shift by the period
    // the overlap is known to fit. Elsewhere the period is longer than either part, and nothing is known.
    const bool isPeriodic = wanted.substr(cut.period, cut.at) == left;
    const std::size_t period = isPeriodic ? cut.period : std::max(cut.at, wanted.size() - cut.at) + 1;
    const std::size_t overlap = isPeriodic ? wanted.size() - period : 0;

    std::size_t known = 0;  // so many of the first characters fit for certain
    for (std::size_t at = 0; at + wanted.size() <= text.size();)
    {
        const std::string_view window = text.substr(at, wanted.size());
        std::size_t place = std::max(cut.at, known);
        while (place < wanted.size() && wanted[place] == window[place])
        {
            ++place;
        }
        if (place < wanted.size())
        {
            at += place - cut.at + 1;
            known = 0;
            continue;
        }
        place = cut.at;
        while (place > known && wanted[place - 1] == window[place - 1])
        {
            --place;
        }
        if (place <= known)
        {
            return at;
        }
        at += period;
        known = overlap;
    }
    return std::string_view::npos;
}

std::size_t FindText(std::string_view text, std::string_view wanted)
{
    constexpr std::size_t shortBytes = 32;  // times the text is linear still, and quick with what is usual
    if (wanted.size() > shortBytes)
    {
        return FindLongText(text, wanted);
    }
    const auto found = std::search(text.begin(), text.end(), wanted.begin(), wanted.end());
    return found == text.end() && !wanted.empty() ? std::string_view::npos
                                                  : static_cast<std::size_t>(found - text.begin());
}

}  // namespace korlo::core

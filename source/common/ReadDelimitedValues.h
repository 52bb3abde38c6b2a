#pragma once
// Reads a group list of the settings protocol.

#include <istream>
#include <string>

namespace korlo::settings::common
{

/// Assigns each line of the block through `out`, whole and untrimmed, and consumes the full stop that ends the block.
/// @param pIn borrowed. When it ends before the block does, what was there is assigned and the stream is no longer
/// good.
template <typename OutputIterator>
void readDelimitedValues(std::istream* pIn, OutputIterator out)
{
    // Read by lines, the block needs no stream of its own, whose construction costs as much as a short list.
    for (std::string line; std::getline(*pIn, line);)
    {
        if (line == "." && !pIn->eof())
        {
            break;
        }
        *out = line;
        ++out;
    }
}

}  // namespace korlo::settings::common

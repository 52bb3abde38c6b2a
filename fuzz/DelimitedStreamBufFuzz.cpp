// Whatever the text, it is cut into blocks as a slow model cuts it, in whatever pieces it comes and however the blocks
// are read: the same bytes, the same end, and nothing taken from the source that is not the block's.

#include <algorithm>
#include <cstdint>
#include <istream>
#include <iterator>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "common/DelimitedIstream.h"
#include "common/ReadDelimitedValues.h"
#include "support/PiecewiseStream.h"

namespace korlo::fuzz
{
namespace
{

using Traits = std::char_traits<char>;

struct Block
{
    std::string text;  // with all line breaks, without the delimiter line
    bool delimiterFound;
    std::size_t end;  // where the text goes on after it
};

/// The block that begins there in the text, found line by line.
Block BlockAt(std::size_t begin, const std::string& text, const std::string& delimiter)
{
    for (std::size_t line = begin; line < text.size();)
    {
        const std::size_t end = text.find('\n', line);
        if (end == std::string::npos)
        {
            break;
        }
        if (text.substr(line, end - line) == delimiter)
        {
            return {text.substr(begin, line - begin), true, end + 1};
        }
        line = end + 1;
    }
    return {text.substr(begin), false, text.size()};
}

std::vector<std::string> LinesOf(const std::string& text)
{
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/// Reads a little of the block in the way that the number says.
std::string ReadSome(std::streambuf& block, unsigned int way)
{
    std::string text;
    if (way % 4 == 0)
    {
        text.resize(way);
        text.resize(static_cast<std::size_t>(block.sgetn(text.data(), static_cast<std::streamsize>(way))));
    }
    else if (way % 4 == 1)
    {
        const Traits::int_type seen = block.sgetc();
        const Traits::int_type taken = block.sbumpc();
        Require(seen == taken, "looking at a byte does not change it");
        text = Traits::eq_int_type(taken, Traits::eof()) ? "" : std::string(1, Traits::to_char_type(taken));
    }
    else if (way % 4 == 2)
    {
        std::istream in(&block);
        std::getline(in, text);
        text += in.good() ? "\n" : "";
    }
    else if (block.in_avail() > 0)
    {
        text.resize(static_cast<std::size_t>(block.in_avail()));
        block.sgetn(text.data(), static_cast<std::streamsize>(text.size()));
    }
    return text;
}

/// All of the block, in the ways that the numbers say, over and over.
std::string ReadAll(std::streambuf& block, const std::string& ways)
{
    std::string text;
    for (std::size_t next = 0; next < ways.size(); ++next)
    {
        text += ReadSome(block, static_cast<unsigned char>(ways[next]));
    }
    return text.append(std::istreambuf_iterator<char>(&block), std::istreambuf_iterator<char>());
}

void CutIntoBlocks(const std::string& text, const std::string& delimiter, std::size_t pieceBytes,
                   const std::string& ways, bool sourceThrows)
{
    PiecewiseStream source(text, pieceBytes);
    if (sourceThrows)
    {
        source.exceptions(std::ios_base::failbit | std::ios_base::badbit);
    }
    for (Block expected{"", true, 0}; expected.delimiterFound;)
    {
        expected = BlockAt(expected.end, text, delimiter);
        stl::DelimitedStreamBuf block(&source, delimiter.c_str());
        Require(ReadAll(block, ways) == expected.text, "a block is the lines up to its delimiter");
        Require(block.DelimiterFound() == expected.delimiterFound, "a block that was cut off says so");
        Require(source.good() == expected.delimiterFound, "the flags of the source tell of its own end alone");
        Require(ReadAll(block, ways).empty(), "nothing comes after the end");
    }
}

/// The same for lists of lines, which the full stop ends.
void CutIntoLists(const std::string& text, std::size_t pieceBytes)
{
    PiecewiseStream source(text, pieceBytes);
    for (Block expected{"", true, 0}; expected.delimiterFound;)
    {
        expected = BlockAt(expected.end, text, ".");
        std::vector<std::string> lines;
        settings::common::readDelimitedValues(&source, std::back_inserter(lines));
        Require(lines == LinesOf(expected.text), "a list is the lines up to its full stop");
        Require(source.good() == expected.delimiterFound, "a list that was cut off shows in the source");
    }
}

/// And for streams of which some are left before their ends: only the lines that were met are gone.
void LeaveEarly(const std::string& text, std::size_t pieceBytes)
{
    PiecewiseStream source(text, pieceBytes);
    std::string line;
    {
        stl::DelimitedIstream block(&source, ".");
        std::getline(block, line);
    }
    const std::size_t end = text.find('\n');
    std::ostringstream left;
    left << source.rdbuf();
    Require(left.str() == (end == std::string::npos ? "" : text.substr(end + 1)), "only whole lines are taken");
}

}  // namespace
}  // namespace korlo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    korlo::fuzz::Input input(data, size);
    const std::size_t pieceBytes = input.TakeByte() + 1;
    const bool sourceThrows = input.TakeByte() % 2 != 0;
    const std::string ways = input.TakeLine();
    const std::string firstLine = input.TakeLine();
    const std::string delimiter = firstLine.substr(0, firstLine.find('\0'));
    const std::string text = input.TakeRest();

    korlo::fuzz::CutIntoBlocks(text, delimiter, pieceBytes, ways, sourceThrows);
    korlo::fuzz::CutIntoLists(text, pieceBytes);
    korlo::fuzz::LeaveEarly(text, pieceBytes);
    return 0;
}

#pragma once
// Reads one block of a stream as if it were a whole stream.

#include <cstddef>
#include <istream>
#include <streambuf>
#include <string>

namespace korlo::stl
{

/// A read-only stream buffer that passes on the lines of a source up to a line that is exactly the delimiter, and then
/// reports the end. The delimiter line is taken from the source but not passed on; no byte behind it is touched, then
/// or later. No other line ends the block: with the delimiter "." neither ".x", "..", "x." nor a "." that a carriage
/// return follows.
///
/// When the source ends first, all that it had is passed on, a last "." without its line break included, and then the
/// end; DelimiterFound tells the two ends apart.
///
///     DelimitedStreamBuf block(&source, ".");
///     std::istream lines(&block);
///
/// Lines are read by std::getline, so the source's flags show its own end, and a line is passed on once it is
/// complete. Bytes that were read from the source but not from here are lost when this object is destroyed.
///
/// Thread safety: none of its own; it belongs to the thread that reads the source.
class DelimitedStreamBuf : public std::streambuf
{
public:
    /// @param pSource borrowed, not null; must outlive this object.
    /// @param delimiter copied, not null, without a line break. An empty one ends the block at the first empty line.
    DelimitedStreamBuf(std::istream* pSource, const char* delimiter);
    DelimitedStreamBuf(const DelimitedStreamBuf&) = delete;
    DelimitedStreamBuf& operator=(const DelimitedStreamBuf&) = delete;
    ~DelimitedStreamBuf() override;

    /// True once the delimiter line was read. False after the end was reported: the source cut the block off.
    bool DelimiterFound() const;

protected:
    /// Makes the next line the get area. What the source's own buffer throws passes out and ends the block.
    int_type underflow() override;

    /// Whole lines that the source has buffered go where they are wanted at once. Throws as underflow does.
    std::streamsize xsgetn(char* pTarget, std::streamsize room) override;

private:
    bool NextLine();
    std::size_t CopyBufferedLines(char* pTarget, std::size_t room);

    std::istream* const _pSource;
    const std::string _delimiter;
    std::string _line;  // the get area: the last line, with its line break
    bool _ended = false;
    bool _delimiterFound = false;
};

}  // namespace korlo::stl

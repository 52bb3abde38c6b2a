#include "korlo/stl/tGatheringWriter.h"

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::stl
{
namespace
{

/// Remembers each piece that it is handed.
class PieceKeeper : public std::streambuf
{
public:
    std::vector<std::string> pieces;

protected:
    std::streamsize xsputn(const char* pText, std::streamsize count) override
    {
        pieces.emplace_back(pText, static_cast<std::size_t>(count));
        return count;
    }
};

class tGatheringWriterTest : public testing::Test
{
protected:
    PieceKeeper _kept;
    std::ostream _out{&_kept};
    tGatheringWriter<8> _writer{_out};
};

TEST_F(tGatheringWriterTest, HandsOnAPieceWhenTheNextTokenDoesNotFit)
{
    _writer.Append("abc");
    _writer.Append('d');
    _writer.Append("efgh");
    EXPECT_TRUE(_kept.pieces.empty());
    _writer.Append('i');
    EXPECT_EQ(_kept.pieces, std::vector<std::string>{"abcdefgh"});
    _writer.Flush();
    EXPECT_EQ(_kept.pieces, (std::vector<std::string>{"abcdefgh", "i"}));
}

TEST_F(tGatheringWriterTest, WhatIsLongerThanAPieceFollowsWhatWasGathered)
{
    _writer.Append("ab");
    _writer.Append("123456789");
    _writer.Append("c");
    _writer.Flush();
    EXPECT_EQ(_kept.pieces, (std::vector<std::string>{"ab", "123456789", "c"}));
}

TEST_F(tGatheringWriterTest, WhatIsReservedAndNotCountedIsNotWritten)
{
    EXPECT_EQ(_writer.Reserve(9), nullptr);
    std::fill_n(_writer.Reserve(8), 8, 'x');
    _writer.Advance(2);
    *_writer.Reserve(1) = 'y';
    _writer.Append("z");
    _writer.Flush();
    EXPECT_EQ(_kept.pieces, std::vector<std::string>{"xxz"});
}

TEST_F(tGatheringWriterTest, NothingIsAppendedAsNothing)
{
    _writer.Append(std::string_view());
    EXPECT_NE(_writer.Reserve(0), nullptr);
    _writer.Append("a");
    _writer.Flush();
    EXPECT_EQ(_kept.pieces, std::vector<std::string>{"a"});
}

}  // namespace
}  // namespace korlo::stl

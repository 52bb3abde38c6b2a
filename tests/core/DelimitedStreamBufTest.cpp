#include "korlo/stl/DelimitedStreamBuf.h"

#include <cstddef>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"

namespace korlo::stl
{
namespace
{

std::string ReadAll(std::streambuf& buffer)
{
    return std::string(std::istreambuf_iterator<char>(&buffer), std::istreambuf_iterator<char>());
}

/// Hands out a text in pieces of a given size, and counts how often it is asked for more once it has ended.
class PieceBuf : public std::streambuf
{
public:
    PieceBuf(std::string text, std::size_t pieceSize) : _text(std::move(text)), _pieceSize(pieceSize) {}

    int asksAfterEnd = 0;

protected:
    int_type underflow() override
    {
        if (_position == _text.size())
        {
            ++asksAfterEnd;
            return traits_type::eof();
        }
        const std::size_t size = std::min(_pieceSize, _text.size() - _position);
        char* const pPiece = _text.data() + _position;
        setg(pPiece, pPiece, pPiece + size);
        _position += size;
        return traits_type::to_int_type(*pPiece);
    }

private:
    std::string _text;
    const std::size_t _pieceSize;
    std::size_t _position = 0;
};

/// What follows the definition of a block, line by line.
struct Block
{
    std::string text;
    bool delimited = false;
    std::string rest;
};

Block BlockByDefinition(const std::string& source, const std::string& delimiter)
{
    for (std::size_t line = 0; line < source.size();)
    {
        const std::size_t end = source.find('\n', line);
        if (end == std::string::npos)
        {
            break;
        }
        if (source.substr(line, end - line) == delimiter)
        {
            return {source.substr(0, line), true, source.substr(end + 1)};
        }
        line = end + 1;
    }
    return {source, false, ""};
}

TEST(DelimitedStreamBufTest, HandsOnTheBlockUpToTheDelimiterLineWhateverTheSizeOfThePieces)
{
    const struct
    {
        const char* name;
        const char* source;
        const char* block;
        bool delimited;
        const char* rest;
    } rows[] = {
        {"two lines", "a\nb\n.\nnext\n", "a\nb\n", true, "next\n"},
        {"no lines", ".\nnext\n", "", true, "next\n"},
        {"two empty blocks", ".\n.\n", "", true, ".\n"},
        {"empty lines", "\n\n.\n", "\n\n", true, ""},
        {"delimiter with more behind it", ".x\n.\n", ".x\n", true, ""},
        {"delimiter with more before it", "x.\n.\n", "x.\n", true, ""},
        {"delimiter twice in a line", "..\n.\n", "..\n", true, ""},
        {"delimiter and a blank", ". \n .\n.\n", ". \n .\n", true, ""},
        {"delimiter and a carriage return", ".\r\n.\n", ".\r\n", true, ""},
        {"dots within lines", "log.file=a.b\n.\n", "log.file=a.b\n", true, ""},
        {"cut after a line", "a\n", "a\n", false, ""},
        {"cut within a line", "a\nb", "a\nb", false, ""},
        {"cut within the delimiter line", "a\n.", "a\n.", false, ""},
        {"nothing at all", "", "", false, ""},
        {"nothing but the delimiter without its line break", ".", ".", false, ""},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        for (const std::size_t pieceSize : {1u, 2u, 3u, 100u})
        {
            PieceBuf pieces(row.source, pieceSize);
            std::istream source(&pieces);
            DelimitedStreamBuf block(&source, ".");
            EXPECT_EQ(ReadAll(block), row.block);
            EXPECT_EQ(block.DelimiterFound(), row.delimited);
            EXPECT_EQ(source.good(), row.delimited);
            EXPECT_EQ(ReadAll(pieces), row.rest);
        }
    }
}

TEST(DelimitedStreamBufTest, AgreesWithTheDefinitionOnRandomText)
{
    constexpr unsigned int Seed = 20240611;
    SCOPED_TRACE(Seed);
    std::mt19937 random(Seed);
    for (const std::string delimiter : {".", "..", ".a", ""})
    {
        SCOPED_TRACE(delimiter);
        for (int round = 0; round < 2000; ++round)
        {
            std::string text;
            for (auto length = random() % 12; length > 0; --length)
            {
                text += ".a\n"[random() % 3];
            }
            SCOPED_TRACE(testing::PrintToString(text));
            const Block expected = BlockByDefinition(text, delimiter);
            PieceBuf pieces(text, 1 + random() % 4);
            std::istream source(&pieces);
            DelimitedStreamBuf block(&source, delimiter.c_str());
            ASSERT_EQ(ReadAll(block), expected.text);
            ASSERT_EQ(block.DelimiterFound(), expected.delimited);
            ASSERT_EQ(ReadAll(pieces), expected.rest);
        }
    }
}

/// In pieces of random sizes, of which some hold many lines and some end within one.
std::string ReadInPieces(std::streambuf& buffer, std::mt19937& random)
{
    std::string text;
    for (std::streamsize got = 1; got > 0;)
    {
        std::string piece(1 + random() % 9, '\0');
        got = buffer.sgetn(piece.data(), static_cast<std::streamsize>(piece.size()));
        text.append(piece, 0, static_cast<std::size_t>(got));
    }
    return text;
}

TEST(DelimitedStreamBufTest, GivesTheSameInPiecesOfAnySize)
{
    constexpr unsigned int Seed = 20261122;
    SCOPED_TRACE(Seed);
    std::mt19937 random(Seed);
    for (int round = 0; round < 5000; ++round)
    {
        std::string text;
        for (auto length = random() % 30; length > 0; --length)
        {
            text += ".a\n"[random() % 3];
        }
        SCOPED_TRACE(testing::PrintToString(text));
        const Block expected = BlockByDefinition(text, ".");
        PieceBuf pieces(text, 1 + random() % 20);
        std::istream source(&pieces);
        DelimitedStreamBuf block(&source, ".");
        ASSERT_EQ(ReadInPieces(block, random), expected.text);
        ASSERT_EQ(block.DelimiterFound(), expected.delimited);
        ASSERT_EQ(source.good(), expected.delimited);
        ASSERT_EQ(ReadAll(pieces), expected.rest);
    }
}

TEST(DelimitedStreamBufTest, NothingIsTakenWhereThereIsNoRoom)
{
    std::istringstream source("ab\n.\n");
    DelimitedStreamBuf block(&source, ".");
    char target = 'x';
    EXPECT_EQ(block.sgetn(&target, 0), 0);
    EXPECT_EQ(block.sgetn(&target, -1), 0);
    EXPECT_EQ(target, 'x');
    EXPECT_EQ(ReadAll(block), "ab\n");
}

TEST(DelimitedStreamBufTest, WholeLinesThatFitAreTakenFromTheSourceAndNoMore)
{
    std::istringstream source("ab\ncd\nef\n.\n");
    DelimitedStreamBuf block(&source, ".");
    std::string piece(7, '\0');
    EXPECT_EQ(block.sgetn(piece.data(), 6), 6);
    EXPECT_EQ(source.tellg(), 6);
    EXPECT_EQ(block.sgetn(piece.data() + 6, 1), 1);
    EXPECT_EQ(source.tellg(), 9);
    EXPECT_EQ(piece, "ab\ncd\ne");
    EXPECT_EQ(ReadAll(block), "f\n");
}

TEST(DelimitedStreamBufTest, KeepsZeroBytesAndLongLines)
{
    const std::string text = std::string("a\0b\n", 4) + std::string(100000, 'x') + "\n";
    std::istringstream source(text + ".\n");
    DelimitedStreamBuf block(&source, ".");
    std::string read(text.size() + 10, '\0');
    const std::streamsize count = block.sgetn(read.data(), static_cast<std::streamsize>(read.size()));
    EXPECT_EQ(read.substr(0, static_cast<std::size_t>(count)), text);
    EXPECT_TRUE(block.DelimiterFound());
}

TEST(DelimitedStreamBufTest, HandsOnALineBeforeTheNextOneIsThere)
{
    std::stringstream source;
    source << "first\n";
    DelimitedStreamBuf block(&source, ".");
    std::istream lines(&block);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "first");
    source << "second\n.\n";
    std::getline(lines, line);
    EXPECT_EQ(line, "second");
    EXPECT_FALSE(std::getline(lines, line));
    EXPECT_TRUE(block.DelimiterFound());
}

TEST(DelimitedStreamBufTest, NeverTouchesTheSourceAgainAfterTheEnd)
{
    std::istringstream source(".\nnext\n");
    DelimitedStreamBuf block(&source, ".");
    EXPECT_EQ(ReadAll(block), "");
    EXPECT_EQ(ReadAll(block), "");
    EXPECT_EQ(source.tellg(), 2);

    PieceBuf pieces("cut", 100);
    std::istream cutSource(&pieces);
    DelimitedStreamBuf cut(&cutSource, ".");
    EXPECT_EQ(ReadAll(cut), "cut");
    const int asks = pieces.asksAfterEnd;
    EXPECT_EQ(ReadAll(cut), "");
    EXPECT_EQ(pieces.asksAfterEnd, asks);
}

TEST(DelimitedStreamBufTest, ReadsNothingFromASourceThatHasFailed)
{
    std::istringstream source("a\n.\n");
    source.setstate(std::ios_base::failbit);
    DelimitedStreamBuf block(&source, ".");
    EXPECT_EQ(ReadAll(block), "");
    EXPECT_FALSE(block.DelimiterFound());
    source.clear();
    EXPECT_EQ(source.tellg(), 0);
}

TEST(DelimitedStreamBufTest, HandsOnTheCutBlockOfASourceThatThrowsAtItsEnd)
{
    std::istringstream source("a\nb");
    source.exceptions(std::ios_base::eofbit | std::ios_base::failbit);
    DelimitedStreamBuf block(&source, ".");
    EXPECT_EQ(ReadAll(block), "a\nb");
    EXPECT_EQ(ReadAll(block), "");
    EXPECT_FALSE(block.DelimiterFound());
}

/// Hands out one line and then fails as a broken device does.
class BrokenBuf : public std::streambuf
{
protected:
    int_type underflow() override
    {
        if (eback() != nullptr)
        {
            throw osa::Exception("broken");
        }
        setg(_line.data(), _line.data(), _line.data() + _line.size());
        return traits_type::to_int_type(*gptr());
    }

private:
    std::string _line = "a\n";
};

TEST(DelimitedStreamBufTest, EndsTheBlockWhenTheBufferOfTheSourceThrows)
{
    for (const bool throws : {false, true})
    {
        BrokenBuf broken;
        std::istream source(&broken);
        source.exceptions(throws ? std::ios_base::badbit : std::ios_base::goodbit);
        DelimitedStreamBuf block(&source, ".");
        std::string line;
        std::istream lines(&block);
        EXPECT_TRUE(std::getline(lines, line));
        EXPECT_FALSE(std::getline(lines, line));
        EXPECT_EQ(lines.bad(), throws);
        EXPECT_EQ(block.sgetc(), std::char_traits<char>::eof());
        EXPECT_FALSE(block.DelimiterFound());
    }
}

TEST(DelimitedStreamBufTest, RefusesNullArguments)
{
    const auto caughtFrom = [](const std::function<void()>& function) -> std::string {
        try
        {
            function();
        }
        catch (const osa::Exception& exception)
        {
            return exception.what();
        }
        return {};
    };
    std::istringstream source;
    EXPECT_EQ(caughtFrom([] { DelimitedStreamBuf(nullptr, "."); }), "Source was NULL");
    EXPECT_EQ(caughtFrom([&] { DelimitedStreamBuf(&source, nullptr); }), "Delimiter was NULL");
}

}  // namespace

}  // namespace korlo::stl

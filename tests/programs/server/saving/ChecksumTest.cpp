#include "saving/Checksum.h"

#include <string>

#include <gtest/gtest.h>

namespace korlo::daemon
{
namespace
{

/// As the definition says it, bit by bit.
std::uint32_t PlainChecksum(const std::string& text)
{
    std::uint32_t rest = 0xFFFFFFFFu;
    for (const char c : text)
    {
        rest ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
        {
            rest = (rest & 1) != 0 ? (rest >> 1) ^ 0xEDB88320u : rest >> 1;
        }
    }
    return ~rest;
}

TEST(ChecksumTest, IsTheOneOfGzip)
{
    EXPECT_EQ(Checksum(""), 0u);
    EXPECT_EQ(Checksum("123456789"), 0xCBF43926u);
}

TEST(ChecksumTest, OfEveryLengthAndInPiecesIsThatOfTheDefinition)
{
    std::string text;
    for (int length = 0; length < 40; ++length)
    {
        SCOPED_TRACE(length);
        EXPECT_EQ(Checksum(text), PlainChecksum(text));
        for (std::size_t cut = 0; cut <= text.size(); ++cut)
        {
            EXPECT_EQ(Checksum(text.substr(cut), Checksum(text.substr(0, cut))), Checksum(text));
        }
        text += static_cast<char>(length * 37 + 200);
    }
}

}  // namespace
}  // namespace korlo::daemon

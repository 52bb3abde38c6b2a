#include "korlo/stl/TextStream.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace korlo::stl
{
namespace
{

TEST(TextStreamTest, GathersWhatIsWritten)
{
    TextStream out;
    out << "text " << 42 << '\n';
    out.write("\0x", 2);
    EXPECT_EQ(out.str(), std::string("text 42\n\0x", 10));
}

TEST(TextStreamTest, UsesTheRoomThatItIsGiven)
{
    std::string room = "is overwritten";
    room.reserve(1000);
    const char* const pRoom = room.data();
    TextStream out(std::move(room));
    out << std::string(900, 'x');
    const std::string text = std::move(out).str();
    EXPECT_EQ(text, std::string(900, 'x'));
    EXPECT_EQ(text.data(), pRoom);
}

TEST(TextStreamTest, AFailureIsThrown)
{
    TextStream out;
    EXPECT_THROW(out.setstate(std::ios_base::badbit), std::ios_base::failure);
}

}  // namespace
}  // namespace korlo::stl

#include "korlo/stl/GetArea.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace korlo::stl
{
namespace
{

TEST(GetAreaTest, ShowsWhatIsThereAndStepsOverIt)
{
    std::istringstream in("first second");
    EXPECT_EQ(GetArea::Of(*in.rdbuf()), "first second");
    GetArea::Skip(*in.rdbuf(), 6);
    EXPECT_EQ(GetArea::Of(*in.rdbuf()), "second");
    std::string word;
    in >> word;
    EXPECT_EQ(word, "second");
    EXPECT_EQ(GetArea::Of(*in.rdbuf()), "");
}

TEST(GetAreaTest, ABufferThatHasReadNothingShowsNothingAndIsNotAsked)
{
    class Asked : public std::streambuf
    {
    public:
        bool wasAsked = false;

    protected:
        int_type underflow() override
        {
            wasAsked = true;
            return traits_type::eof();
        }
    };
    Asked buffer;
    EXPECT_TRUE(GetArea::Of(buffer).empty());
    GetArea::Skip(buffer, 0);
    EXPECT_FALSE(buffer.wasAsked);
}

}  // namespace
}  // namespace korlo::stl

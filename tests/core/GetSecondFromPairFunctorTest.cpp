#include "korlo/core/GetSecondFromPairFunctor.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::core
{

TEST(GetSecondFromPairFunctorTest, PoursTheValuesOfAMapThroughAnAlgorithm)
{
    const std::map<std::string, std::string> map{{"1", "Network"}, {"2", "Audio"}};

    std::vector<std::string> values;
    std::transform(map.begin(), map.end(), std::back_inserter(values),
                   GetSecondFromPairFunctor<std::string, std::string>());

    EXPECT_EQ(values, (std::vector<std::string>{"Network", "Audio"}));
}

TEST(GetSecondFromPairFunctorTest, CopiesNothing)
{
    const std::pair<const int, std::string> pair(1, "one");
    EXPECT_EQ(&(GetSecondFromPairFunctor<int, std::string>()(pair)), &pair.second);
}

}  // namespace korlo::core

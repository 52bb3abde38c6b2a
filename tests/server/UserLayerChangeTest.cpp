#include "settings/server/UserLayerChange.h"

#include <gtest/gtest.h>

#include "support/Documents.h"

namespace korlo::settings::server
{
namespace
{

core::IniFile Applied(core::IniFile layer, const UserLayerChange& change)
{
    change.ApplyTo(layer);
    return layer;
}

TEST(UserLayerChangeTest, RemovesGroupsAndThenMerges)
{
    const UserLayerChange change = {{"A", "B", "none"}, Ini("[B]\nk=2\n[C]\n")};
    EXPECT_EQ(Applied(Ini("[A]\nk=1\n[B]\nj=1\n[D]\nk=1\n"), change), Ini("[B]\nk=2\n[C]\n[D]\nk=1\n"));
}

TEST(UserLayerChangeTest, AppendedChangesAreThoseOneAfterTheOther)
{
    const UserLayerChange changes[] = {
        {{}, Ini("[A]\nk=2\nj=2\n")}, {{"A"}, Ini("[A]\nk=3\n")}, {{"B"}, {}}, {{}, Ini("[B]\nx=1\n")}, {{"A"}, {}}};
    const core::IniFile start = Ini("[A]\nk=1\nl=1\n[B]\nk=1\n[C]\nk=1\n");
    core::IniFile layer = start;
    UserLayerChange gathered;
    for (const UserLayerChange& change : changes)
    {
        change.ApplyTo(layer);
        gathered.Append(change);
        EXPECT_EQ(Applied(start, gathered), layer);
        EXPECT_EQ(Applied(layer, gathered), layer) << "a second time it changes nothing";
    }
}

TEST(UserLayerChangeTest, IsEmptyOnlyWithoutGroups)
{
    EXPECT_TRUE(UserLayerChange().IsEmpty());
    EXPECT_FALSE((UserLayerChange{{"A"}, {}}.IsEmpty()));
    EXPECT_FALSE((UserLayerChange{{}, Ini("[A]\n")}.IsEmpty()));
}

}  // namespace
}  // namespace korlo::settings::server

#include "korlo/core/IniFile.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "korlo/stl/DelimitedStreamBuf.h"
#include "support/TemporaryFolder.h"

namespace korlo::core
{
namespace
{

using ::testing::ElementsAre;

IniFile FromText(const std::string& text)
{
    IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

std::string TextOf(const IniFile& ini)
{
    std::ostringstream out;
    ini.SaveToStream(out);
    return out.str();
}

std::vector<std::string> GroupsOf(const IniFile& ini)
{
    std::vector<std::string> names;
    for (const auto& [name, values] : ini)
    {
        names.push_back(name);
    }
    return names;
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string MessageOf(const std::string& path)
{
    try
    {
        IniFile().Load(path.c_str());
    }
    catch (const osa::Exception& exception)
    {
        return exception.what();
    }
    return "no exception";
}

}  // namespace

TEST(IniFileTest, TheExampleOfTheHeaderHolds)
{
    IniFile ini;
    ini.LoadFromString("[Network]\nmode=dhcp\n");
    ini["Network"]["address"] = "192.0.2.1";
    std::string seen;
    for (const auto& [group, values] : ini)
    {
        for (const auto& [key, value] : values)
        {
            seen += group + '.' + key + '=' + value + ' ';
        }
    }
    EXPECT_EQ(seen, "Network.address=192.0.2.1 Network.mode=dhcp ");
}

TEST(IniFileTest, IsEmptyAtFirst)
{
    const IniFile ini;
    EXPECT_TRUE(ini.empty());
    EXPECT_EQ(ini.size(), 0u);
    EXPECT_EQ(ini.begin(), ini.end());
    EXPECT_EQ(TextOf(ini), "");
}

TEST(IniFileTest, HoldsItsGroupsAndKeysInByteOrder)
{
    IniFile ini;
    for (const char* name : {"b", "\xFF", "a", "B", "", "aa", "\x7F"})
    {
        ini.SetValue(name, "z", "");
        ini.SetValue(name, "\x80", "");
        ini.SetValue(name, "Z", "");
    }
    EXPECT_THAT(GroupsOf(ini), ElementsAre("", "B", "a", "aa", "b", "\x7F", "\xFF"));
    EXPECT_EQ(TextOf(FromText("[g]\nz=\n\x80=\nZ=\n")), "[g]\nZ=\nz=\n\x80=\n");
}

TEST(IniFileTest, CopiesShareNothing)
{
    const IniFile original = FromText("[a]\nk=1\n[b]\nk=2\n");
    IniFile copy = original;
    copy.SetValue("a", "k", "changed");
    copy.RemoveGroup("b");
    EXPECT_EQ(original, FromText("[a]\nk=1\n[b]\nk=2\n"));
    copy = original;
    EXPECT_EQ(copy, original);
}

TEST(IniFileTest, ComparesWholeDocuments)
{
    IniFile ini = FromText("[a]\nk=1\n[b]\n");
    EXPECT_EQ(ini, FromText("[b]\n[a]\nk=1\n"));
    EXPECT_NE(ini, FromText("[a]\nk=1\n"));
    EXPECT_NE(ini, FromText("[a]\nk=2\n[b]\n"));
    EXPECT_NE(ini, FromText("[a]\nK=1\n[b]\n"));
}

TEST(IniFileTest, ClearRemovesEveryGroup)
{
    IniFile ini = FromText("[a]\nk=1\n[b]\n");
    ini.SetValue("c", "k", "2");
    ini.Clear();
    EXPECT_EQ(ini, IniFile());
}

TEST(IniFileTest, LoadsFilesOnTopOfWhatItHolds)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("some.ini");
    WriteFile(path, "[a]\nk=new\nadded=1\n[c]\nk=3\n[empty]\n");
    IniFile ini = FromText("[a]\nk=old\nkept=1\n[b]\nk=2\n");
    ini.Load(path.c_str());
    EXPECT_EQ(ini, FromText("[a]\nk=new\nadded=1\nkept=1\n[b]\nk=2\n[c]\nk=3\n[empty]\n"));
    EXPECT_EQ(IniFile(path.c_str()), FromText("[a]\nk=new\nadded=1\n[c]\nk=3\n[empty]\n"));
}

TEST(IniFileTest, LoadsStreamsAndStringsOnTopOfWhatItHolds)
{
    IniFile fromStream = FromText("[a]\nk=old\nkept=1\n");
    IniFile fromString = fromStream;
    std::istringstream in("[a]\nk=new\n[b]\n");
    fromStream.LoadFromStream(in);
    fromString.LoadFromString("[a]\nk=new\n[b]\n");
    EXPECT_EQ(fromStream, FromText("[a]\nk=new\nkept=1\n[b]\n"));
    EXPECT_EQ(fromString, fromStream);
}

TEST(IniFileTest, LoadsLongFilesStreamsAndWhatHasNoSize)
{
    const TemporaryFolder folder;
    IniFile ini;
    for (int i = 0; i < 5000; ++i)
    {
        ini.SetValue("group", "key" + std::to_string(i), std::string(static_cast<std::size_t>(i % 50), 'v'));
    }
    ini.SetValue("group", "long", std::string(100000, 'x'));
    WriteFile(folder.PathOf("long.ini"), TextOf(ini));
    EXPECT_EQ(IniFile(folder.PathOf("long.ini").c_str()), ini);
    std::istringstream in(TextOf(ini));
    IniFile loaded;
    loaded.LoadFromStream(in);
    EXPECT_EQ(loaded, ini);
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.bad());
    EXPECT_NO_THROW(IniFile("/dev/null"));
}

TEST(IniFileTest, AnEmptyFileIsAnEmptyDocument)
{
    const TemporaryFolder folder;
    WriteFile(folder.PathOf("empty.ini"), "");
    EXPECT_TRUE(IniFile(folder.PathOf("empty.ini").c_str()).empty());
    std::istringstream in;
    IniFile ini;
    ini.LoadFromStream(in);
    EXPECT_TRUE(ini.empty());
}

TEST(IniFileTest, AFileThatCannotBeReadIsAnExceptionThatNamesPathAndReason)
{
    const TemporaryFolder folder;
    const std::string missing = folder.PathOf("missing.ini");
    EXPECT_EQ(MessageOf(missing), "Failed to open '" + missing + "': No such file or directory");
    EXPECT_EQ(MessageOf(missing + "/x"), "Failed to open '" + missing + "/x': No such file or directory");
    EXPECT_EQ(MessageOf(folder.GetPath()), "Failed to read '" + folder.GetPath() + "': Is a directory");
    EXPECT_THROW(IniFile file(missing.c_str()), osa::Exception);
    EXPECT_THROW(IniFile::FindBadLines(missing.c_str()), osa::Exception);
    WriteFile(missing, "");
    EXPECT_EQ(MessageOf(missing + "/x"), "Failed to open '" + missing + "/x': Not a directory");
}

TEST(IniFileTest, ANullPathIsAnException)
{
    EXPECT_THROW(IniFile().Load(nullptr), osa::Exception);
}

TEST(IniFileTest, AFileThatCannotBeReadLeavesTheDocumentAsItWas)
{
    const TemporaryFolder folder;
    IniFile ini = FromText("[a]\nk=1\n");
    EXPECT_THROW(ini.Load(folder.GetPath().c_str()), osa::Exception);
    EXPECT_EQ(ini, FromText("[a]\nk=1\n"));
}

TEST(IniFileTest, LoadingReadsNoByteBeyondItsBlock)
{
    std::istringstream source("[a]\nk=1\n.\n[b]\nk=2\n.\nrest");
    for (const char* expected : {"[a]\nk=1\n", "[b]\nk=2\n"})
    {
        stl::DelimitedStreamBuf block(&source, ".");
        std::istream in(&block);
        IniFile ini;
        ini.LoadFromStream(in);
        EXPECT_EQ(ini, FromText(expected));
        EXPECT_TRUE(block.DelimiterFound());
    }
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(source), {}), "rest");
}

TEST(IniFileTest, SavesGroupsAndKeysInOrder)
{
    EXPECT_EQ(TextOf(FromText("[b]\nz=1\na=2\n[a]\n[c]\nk=\n")), "[a]\n[b]\na=2\nz=1\n[c]\nk=\n");
}

TEST(IniFileTest, SavingAGroupWritesItsHeaderAndItsKeys)
{
    const IniFile ini = FromText("[b]\nz=1\na=2\n[a]\n");
    std::ostringstream out;
    ini.SaveGroupToStream(out, "b");
    EXPECT_EQ(out.str(), "[b]\na=2\nz=1\n");
    ini.SaveGroupToStream(out, "unknown");
    EXPECT_EQ(out.str(), "[b]\na=2\nz=1\n");
    ini.SaveGroupToStream(out, "a");
    EXPECT_EQ(out.str(), "[b]\na=2\nz=1\n[a]\n");
}

TEST(IniFileTest, GroupsSavedInARowReadBackAsThoseGroups)
{
    const IniFile ini = FromText("[a]\nk=1\n[\" odd\\n\"]\n\"\"=2\n[c]\n[left out]\nk=3\n");
    std::stringstream stream;
    for (const char* name : {"c", "a", " odd\n"})
    {
        ini.SaveGroupToStream(stream, name);
    }
    IniFile loaded;
    loaded.LoadFromStream(stream);
    IniFile expected = ini;
    expected.RemoveGroup("left out");
    EXPECT_EQ(loaded, expected);
}

TEST(IniFileTest, SavingToAFailedStreamShowsInTheStream)
{
    std::ostringstream out;
    out.setstate(std::ios::badbit);
    FromText("[a]\nk=1\n").SaveToStream(out);
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(out.str(), "");
}

TEST(IniFileTest, MergingSetsEveryKeyAndRemovesNothing)
{
    IniFile ini = FromText("[a]\nk=old\nkept=1\n[b]\nk=2\n");
    ini.MergeSettings(FromText("[a]\nk=new\nadded=1\n[c]\nk=3\n"));
    EXPECT_EQ(ini, FromText("[a]\nk=new\nkept=1\nadded=1\n[b]\nk=2\n[c]\nk=3\n"));
}

TEST(IniFileTest, MergingAnEmptyGroupCreatesItEmptyAndDeletesNoKey)
{
    IniFile ini = FromText("[a]\nk=1\n");
    ini.MergeSettings(FromText("[a]\n[b]\n"));
    EXPECT_EQ(ini, FromText("[a]\nk=1\n[b]\n"));
    IniFile empty;
    empty.MergeSettings(FromText("[b]\n"));
    EXPECT_TRUE(empty.HasGroup("b"));
}

TEST(IniFileTest, MergingOneGroupLeavesTheOthersAlone)
{
    IniFile ini = FromText("[a]\nk=1\nkept=1\n");
    const IniFile other = FromText("[a]\nk=2\n[b]\nk=2\n[c]\n");
    ini.MergeSettings(other, "a");
    EXPECT_EQ(ini, FromText("[a]\nk=2\nkept=1\n"));
    ini.MergeSettings(other, "c");
    EXPECT_EQ(ini, FromText("[a]\nk=2\nkept=1\n[c]\n"));
    ini.MergeSettings(other, "unknown");
    EXPECT_EQ(ini, FromText("[a]\nk=2\nkept=1\n[c]\n"));
}

TEST(IniFileTest, MergingADocumentWithItselfChangesNothing)
{
    IniFile ini = FromText("[a]\nk=1\n[b]\n");
    ini.SetValue("a", "added", "2");
    const IniFile before = ini;
    ini.MergeSettings(ini);
    ini.MergeSettings(ini, "a");
    EXPECT_EQ(ini, before);
}

TEST(IniFileTest, ContainsSettingsComparesEveryKeyExactly)
{
    const IniFile ini = FromText("[a]\nk=1\nl=2\n[b]\nk=3\n");
    EXPECT_TRUE(ini.ContainsSettings(ini));
    EXPECT_TRUE(ini.ContainsSettings(FromText("[a]\nl=2\n[b]\nk=3\n")));
    EXPECT_FALSE(ini.ContainsSettings(FromText("[a]\nl=2\n[b]\nk=4\n")));
    EXPECT_FALSE(ini.ContainsSettings(FromText("[a]\nl=\"2 \"\n")));
    EXPECT_FALSE(ini.ContainsSettings(FromText("[a]\nL=2\n")));
    EXPECT_FALSE(ini.ContainsSettings(FromText("[a]\nm=\n"))) << "a missing key is not an empty value";
    EXPECT_FALSE(ini.ContainsSettings(FromText("[c]\nk=3\n")));
}

TEST(IniFileTest, EveryDocumentContainsOneWithoutKeys)
{
    EXPECT_TRUE(IniFile().ContainsSettings(IniFile()));
    EXPECT_TRUE(FromText("[a]\nk=1\n").ContainsSettings(IniFile()));
    EXPECT_TRUE(IniFile().ContainsSettings(FromText("[a]\n[b]\n"))) << "an empty group holds no key to compare";
}

TEST(IniFileTest, RemovesAGroupByName)
{
    IniFile ini = FromText("[a]\n[b]\nk=1\n");
    ini.RemoveGroup("b");
    ini.RemoveGroup("unknown");
    EXPECT_THAT(GroupsOf(ini), ElementsAre("a"));
    ini.RemoveGroup(ini.begin()->first);
    EXPECT_TRUE(ini.empty());
}

TEST(IniFileTest, RemovesTheGroupAtAnIteratorAndGoesOnBehindIt)
{
    IniFile ini = FromText("[a]\n[b]\n[c]\n[d]\n");
    ini["bb"];
    IniFile::iterator group = ini.RemoveGroup(std::next(ini.begin()));
    EXPECT_EQ(group->first, "bb");
    group = ini.RemoveGroup(IniFile::const_iterator(group));
    EXPECT_EQ(group->first, "c");
    for (; group != ini.end(); group = ini.RemoveGroup(group))
    {
    }
    EXPECT_THAT(GroupsOf(ini), ElementsAre("a"));
}

TEST(IniFileTest, IndexingCreatesAnEmptyGroup)
{
    IniFile ini;
    EXPECT_TRUE(ini["g"].empty());
    EXPECT_TRUE(ini.HasGroup("g"));
    ini["g"]["k"] = "1";
    EXPECT_EQ(ini, FromText("[g]\nk=1\n"));
}

TEST(IniFileTest, IndexingAConstantDocumentByAMissingGroupIsAnException)
{
    const IniFile ini = FromText("[a]\nk=1\n");
    EXPECT_EQ(ini["a"].at("k"), "1");
    try
    {
        ini["b"];
        FAIL();
    }
    catch (const osa::Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "No group 'b'");
    }
}

TEST(IniFileTest, FindsGroupsByNameAndByOrder)
{
    const IniFile ini = FromText("[a]\n[c]\n");
    EXPECT_EQ(ini.Find("c")->first, "c");
    EXPECT_EQ(ini.Find("b"), ini.end());
    EXPECT_EQ(ini.LowerBound("b")->first, "c");
    EXPECT_EQ(ini.LowerBound("d"), ini.cend());
    EXPECT_EQ(ini.LowerBound(""), ini.cbegin());
}

TEST(IniFileTest, ReferencesStayUntilTheirOwnGroupGoes)
{
    IniFile ini = FromText("[a]\nk=1\n[b]\nk=2\n[c]\nk=3\n");
    IniFile::KeyValueMap& values = ini["b"];
    const IniFile::iterator group = std::next(ini.begin());
    ini.RemoveGroup("a");
    ini.SetValue("aa", "k", "new");
    ini.MergeSettings(FromText("[b]\nl=4\n[d]\nk=5\n"));
    ini.LoadFromString("[c]\nk=6\n[0]\nk=7\n");
    EXPECT_EQ(&ini["b"], &values);
    EXPECT_EQ(&group->second, &values);
    EXPECT_EQ(std::next(group)->first, "c");
    EXPECT_EQ(std::prev(group)->first, "aa");
}

}  // namespace korlo::core

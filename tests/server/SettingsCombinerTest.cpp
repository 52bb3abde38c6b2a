#include "settings/server/SettingsCombiner.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

/// Notes that it ran, and leaves its mark in the document.
class MarkingFilter : public IIncludeFilter
{
public:
    MarkingFilter(std::string name, std::vector<std::string>& ran) : _name(std::move(name)), _ran(ran) {}

    void FilterIni(IniFile& ini) override
    {
        _ran.push_back(_name);
        ini["Marks"][_name] = std::to_string(ini["Marks"].size());
    }

private:
    const std::string _name;
    std::vector<std::string>& _ran;
};

class ThrowingFilter : public IIncludeFilter
{
public:
    void FilterIni(IniFile&) override { throw std::runtime_error("refused"); }
};

TEST(SettingsCombinerTest, LaterDocumentsOverrideEarlierOnesKeyByKey)
{
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.LoadFromString("[A]\nx=1\ny=1\n[B]\nz=1\n");
    combiner.LoadFromIni(Ini("[A]\nx=2\n[C]\n"));
    EXPECT_EQ(target, Ini("[A]\nx=2\ny=1\n[B]\nz=1\n[C]\n"));
}

TEST(SettingsCombinerTest, WhatTheTargetHeldStays)
{
    IniFile target = Ini("[Held]\nx=1\n");
    SettingsCombiner combiner(target);
    combiner.LoadFromIni(IniFile());
    combiner.LoadFromString("");
    EXPECT_EQ(target, Ini("[Held]\nx=1\n"));
}

TEST(SettingsCombinerTest, FiltersRunInTheOrderInWhichTheyWereAdded)
{
    std::vector<std::string> ran;
    MarkingFilter first("z", ran);
    MarkingFilter second("a", ran);
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.AddFilter(&first);
    combiner.AddFilter(&second);
    combiner.AddFilter(&first);

    combiner.LoadFromString("[A]\nx=1\n");
    EXPECT_EQ(ran, (std::vector<std::string>{"z", "a", "z"}));
    EXPECT_EQ(target, Ini("[A]\nx=1\n[Marks]\na=1\nz=2\n"));
}

TEST(SettingsCombinerTest, RunFiltersEditsTheDocumentAndNotTheTarget)
{
    std::vector<std::string> ran;
    MarkingFilter filter("f", ran);
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);

    IniFile ini;
    combiner.RunFilters(ini);
    EXPECT_EQ(ini, Ini("[Marks]\nf=0\n"));
    EXPECT_TRUE(target.empty());
}

TEST(SettingsCombinerTest, MergeTakesTheDocumentUnfiltered)
{
    std::vector<std::string> ran;
    MarkingFilter filter("f", ran);
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);
    combiner.Merge(Ini("[A]\nx=1\n"));
    EXPECT_TRUE(ran.empty());
    EXPECT_EQ(target, Ini("[A]\nx=1\n"));
}

TEST(SettingsCombinerTest, EveryWayInIsFilteredOnACopyOfItsOwn)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("defaults.ini");
    WriteFile(path, "[File]\nx=1\n");
    const IniFile source = Ini("[Ini]\nx=1\n");
    std::vector<std::string> ran;
    MarkingFilter filter("f", ran);
    IniFile target = Ini("[Marks]\nother=1\n");
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);

    combiner.LoadFromIni(source);
    combiner.LoadFromString("[String]\nx=1\n");
    combiner.LoadFromFile(path);
    EXPECT_EQ(ran.size(), 3u);
    EXPECT_EQ(source, Ini("[Ini]\nx=1\n"));
    // The filter never saw the target's marks, nor those of the document before: it counted from 0 each time.
    EXPECT_EQ(target, Ini("[File]\nx=1\n[Ini]\nx=1\n[Marks]\nf=0\nother=1\n[String]\nx=1\n"));
}

TEST(SettingsCombinerTest, AFileThatCannotBeReadThrowsItsPathAndLeavesTheTarget)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("missing.ini");
    IniFile target = Ini("[A]\nx=1\n");
    SettingsCombiner combiner(target);
    const std::string message = MessageOf([&] { combiner.LoadFromFile(path); });
    EXPECT_NE(message.find("'" + path + "'"), std::string::npos) << message;
    EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;
    EXPECT_EQ(target, Ini("[A]\nx=1\n"));
}

TEST(SettingsCombinerTest, WhatAFilterThrowsPassesOutAndTheTargetIsLeft)
{
    ThrowingFilter filter;
    IniFile target = Ini("[A]\nx=1\n");
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);
    EXPECT_THROW(combiner.LoadFromString("[A]\nx=2\n"), std::runtime_error);
    EXPECT_THROW(combiner.LoadFromIni(Ini("[A]\nx=2\n")), std::runtime_error);
    EXPECT_EQ(target, Ini("[A]\nx=1\n"));
}

}  // namespace
}  // namespace korlo::settings::server

#include "korlo/core/IniReader.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::core
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Keeps what it hears, as "LINE: WHAT".
class Listener : public IIniObserver
{
public:
    void OnGroup(std::size_t line, std::string_view name) override { Add(line, '[' + std::string(name) + ']'); }

    void OnValue(std::size_t line, std::string_view key, std::string_view value) override
    {
        Add(line, std::string(key) + '=' + std::string(value));
    }

    void OnBadLine(std::size_t line, const char* reason) override { Add(line, reason); }

    std::vector<std::string> heard;

private:
    void Add(std::size_t line, const std::string& what) { heard.push_back(std::to_string(line) + ": " + what); }
};

class ThrowingListener : public Listener
{
public:
    void OnGroup(std::size_t, std::string_view) override { throw std::runtime_error("enough"); }
};

}  // namespace

TEST(IniReaderTest, TellsTheLineOfEachGroupKeyAndBadLine)
{
    Listener listener;
    IniReader::ReadText("\xEF\xBB\xBF# comment\n\n[a]\r\nk=1\n\"q\\n\"=\"\\x41\"\nbad\n[\"b\"]\n\nk=2", listener);
    EXPECT_THAT(listener.heard, ElementsAre("3: [a]", "4: k=1", "5: q\n=A",
                                            "6: it is neither a [group] nor a key=value line", "7: [b]", "9: k=2"));
}

TEST(IniReaderTest, TellsRepetitionsToo)
{
    Listener listener;
    IniReader::ReadText("[a]\nk=1\nk=2\n[a]\n", listener);
    EXPECT_THAT(listener.heard, ElementsAre("1: [a]", "2: k=1", "3: k=2", "4: [a]"));
}

TEST(IniReaderTest, NothingIsToldOfNoText)
{
    Listener listener;
    IniReader::ReadText({}, listener);
    EXPECT_THAT(listener.heard, IsEmpty());
}

TEST(IniReaderTest, ReadsAFile)
{
    const TemporaryFolder folder;
    WriteFile(folder.PathOf("a.ini"), "[a]\nk=1\n");
    Listener listener;
    IniReader::ReadFile(folder.PathOf("a.ini").c_str(), listener);
    EXPECT_THAT(listener.heard, ElementsAre("1: [a]", "2: k=1"));
}

TEST(IniReaderTest, AFileThatCannotBeReadIsNamedWithTheReason)
{
    const TemporaryFolder folder;
    Listener listener;
    const std::string missing = folder.PathOf("missing.ini");
    EXPECT_EQ(MessageOf([&] { IniReader::ReadFile(missing.c_str(), listener); }),
              "Failed to open '" + missing + "': No such file or directory");
    EXPECT_EQ(MessageOf([&] { IniReader::ReadFile(folder.GetPath().c_str(), listener); }),
              "Failed to read '" + folder.GetPath() + "': Is a directory");
    EXPECT_THAT(listener.heard, IsEmpty());
}

TEST(IniReaderTest, AFileOverTheBoundIsRefusedAndOneOfThatSizeIsNot)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("a.ini");
    WriteFile(path, "[a]\nk=1\n");
    Listener listener;
    EXPECT_EQ(MessageOf([&] { IniReader::ReadFile(path.c_str(), listener, 7); }),
              "Failed to read '" + path + "': it holds more than 7 bytes");
    EXPECT_THAT(listener.heard, IsEmpty());
    IniReader::ReadFile(path.c_str(), listener, 8);
    EXPECT_THAT(listener.heard, ElementsAre("1: [a]", "2: k=1"));
}

TEST(IniReaderTest, AFileThatNeverEndsIsRefusedAtTheBound)
{
    Listener listener;
    EXPECT_EQ(MessageOf([&] { IniReader::ReadFile("/dev/zero", listener, 100'000); }),
              "Failed to read '/dev/zero': it holds more than 100000 bytes");
}

TEST(IniReaderTest, WhatAnObserverThrowsPassesOut)
{
    ThrowingListener listener;
    EXPECT_THROW(IniReader::ReadText("[a]\n[b]\n", listener), std::runtime_error);
}

}  // namespace korlo::core

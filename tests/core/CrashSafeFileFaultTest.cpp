#include "korlo/osa/CrashSafeFile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::osa
{
namespace
{

namespace fs = std::filesystem;
using testing::HasSubstr;

const std::string OldContent(3000, 'o');
const std::string NewContent(5000, 'n');
const std::string OlderContent(1000, 'r');

/// How things stand before the file is replaced, and how it is.
struct Situation
{
    const char* name;
    std::optional<std::string> before;
    std::optional<std::string> previousBefore;
    CrashSafeFile::Generations generations;
    bool isLink;
    bool hasHardLinks;
};

const Situation Situations[] = {
    {"a fresh file", std::nullopt, std::nullopt, CrashSafeFile::KeepNone, false, true},
    {"an existing file", OldContent, std::nullopt, CrashSafeFile::KeepNone, false, true},
    {"the first generation", std::nullopt, std::nullopt, CrashSafeFile::KeepPrevious, false, true},
    {"the second generation", OldContent, std::nullopt, CrashSafeFile::KeepPrevious, false, true},
    {"one more generation", OldContent, OlderContent, CrashSafeFile::KeepPrevious, false, true},
    {"a symbolic link", OldContent, OlderContent, CrashSafeFile::KeepPrevious, true, true},
    {"a disk without hard links", OldContent, OlderContent, CrashSafeFile::KeepPrevious, false, false},
};

/// One situation in a folder of its own, with one call that goes wrong.
class FaultRun
{
public:
    FaultRun(const Situation& situation, const DiskFault& fault, std::size_t call)
        : _situation(situation),
          _fault(fault)
    {
        if (situation.isLink)
        {
            fs::create_symlink("real.ini", _path);
        }
        Prepare(situation.before, _target);
        Prepare(situation.previousBefore, _target + '~');
        _fileSystem.FailAt(call, fault.kind, fault.error);
        if (!situation.hasHardLinks)
        {
            _fileSystem.RefuseLinks();
        }
    }

    /// Replaces the file and checks what is left.
    /// @return false when it was done before the call that was to fail.
    bool Run()
    {
        CrashSafeFile file(_path, _situation.generations, 0644, _fileSystem);
        const std::string message = MessageOf([&] { file.Replace(NewContent); });

        CheckMessage(message);
        CheckContent(!message.empty());
        CheckFolder(!message.empty());
        EXPECT_EQ(_fileSystem.GetOpenFiles(), 0);
        return _fileSystem.HasFailed();
    }

private:
    static void Prepare(const std::optional<std::string>& content, const std::string& path)
    {
        if (content)
        {
            WriteFile(path, *content);
        }
    }

    bool IsPowerCut() const
    {
        return _fault.kind == FaultyFileSystem::PowerCut || _fault.kind == FaultyFileSystem::PowerCutAfter;
    }

    void CheckMessage(const std::string& message) const
    {
        if (_fault.error == EINTR || _fault.kind == FaultyFileSystem::TakeLittle)
        {
            EXPECT_EQ(message, "");
        }
        if (!message.empty())
        {
            EXPECT_THAT(message, HasSubstr("'" + (_situation.isLink ? _folder.GetPath() : _path)));
            EXPECT_THAT(message, HasSubstr(std::strerror(_fault.error)));
        }
    }

    void CheckContent(bool hasThrown) const
    {
        const std::optional<std::string> content = ContentOf(_path);
        const std::vector<std::string>& calls = _fileSystem.GetCalls();
        const bool hasRenamed = calls.back() == "SyncFolder" || _fault.kind == FaultyFileSystem::PowerCutAfter;
        if (!hasThrown)
        {
            EXPECT_EQ(content, NewContent);
        }
        else if (!(hasRenamed && content == NewContent))
        {
            EXPECT_EQ(content, _situation.before);
        }

        const std::optional<std::string> previous = ContentOf(_target + '~');
        if (_situation.generations == CrashSafeFile::KeepPrevious && content == NewContent)
        {
            EXPECT_EQ(previous, _situation.before);
        }
        else
        {
            EXPECT_TRUE(previous == _situation.previousBefore || previous == _situation.before);
        }
    }

    void CheckFolder(bool hasThrown) const
    {
        if (IsPowerCut() && hasThrown)
        {
            return;  // nobody is left to clean up
        }
        for (const std::string& name : NamesIn(_folder.GetPath()))
        {
            EXPECT_TRUE((std::set<std::string>{"user.ini", "user.ini~", "real.ini", "real.ini~"}).contains(name))
                << name;
        }
    }

    const Situation& _situation;
    const DiskFault& _fault;
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    const std::string _target = _situation.isLink ? _folder.PathOf("real.ini") : _path;
    FaultyFileSystem _fileSystem;
};

}  // namespace

TEST(CrashSafeFileFaultTest, WhateverCallFailsTheOldOrTheNewContentIsThereAsAWhole)
{
    for (const Situation& situation : Situations)
    {
        for (const DiskFault& fault : DiskFaults)
        {
            bool hasFailed = true;
            for (std::size_t call = 0; hasFailed; ++call)
            {
                SCOPED_TRACE(std::string(situation.name) + ", " + fault.name + " at call " + std::to_string(call));
                hasFailed = FaultRun(situation, fault, call).Run();
            }
        }
    }
}

TEST(CrashSafeFileFaultTest, AFailedSyncOfWhatIsThereNamesPathAndReasonAndClosesTheFile)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("user.ini");
    WriteFile(path, OldContent);
    bool hasFailed = true;
    for (std::size_t call = 0; hasFailed; ++call)
    {
        SCOPED_TRACE(call);
        FaultyFileSystem fileSystem;
        fileSystem.FailAt(call, FaultyFileSystem::FailOnce, EIO);
        const CrashSafeFile file(path, CrashSafeFile::KeepNone, 0644, fileSystem);

        const std::string message = MessageOf([&] { file.Sync(); });

        hasFailed = fileSystem.HasFailed();
        EXPECT_EQ(fileSystem.GetOpenFiles(), 0);
        // What is closed after a sync that went well has nothing to lose.
        if (hasFailed && fileSystem.GetCalls().back() != "SyncFolder")
        {
            EXPECT_THAT(message, HasSubstr('\'' + path + "': " + std::strerror(EIO)));
        }
    }
}

TEST(CrashSafeFileFaultTest, AFailedReadClosesTheFile)
{
    const TemporaryFolder folder;
    WriteFile(folder.PathOf("user.ini"), OldContent);
    FaultyFileSystem fileSystem;
    fileSystem.FailAlwaysAt("Read", EIO);

    const CrashSafeFile file(folder.PathOf("user.ini"), CrashSafeFile::KeepNone, 0644, fileSystem);

    EXPECT_EQ(MessageOf([&] { file.Read(); }), "Failed to read '" + file.GetPath() + "': " + std::strerror(EIO));
    EXPECT_EQ(fileSystem.GetOpenFiles(), 0);
}

}  // namespace korlo::osa

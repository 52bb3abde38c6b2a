#include "korlo/osa/CrashSafeFile.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::osa
{
namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using Names = std::set<std::string>;

const std::string OldContent(3000, 'o');
const std::string NewContent(5000, 'n');
const std::string OlderContent(1000, 'r');

struct stat StatusOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    return status;
}

/// So many mappings of this process that the list of them takes more than 4096 bytes, under an emulator too.
class ManyMappings
{
public:
    ManyMappings() : _start(::mmap(nullptr, _size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        EXPECT_NE(_start, MAP_FAILED);
        for (std::size_t offset = 0; offset < _size; offset += 2 * _page)  // two neighbours alike would be one
        {
            EXPECT_EQ(::mprotect(static_cast<char*>(_start) + offset, _page, PROT_NONE), 0);
        }
    }

    ~ManyMappings() { ::munmap(_start, _size); }

    ManyMappings(const ManyMappings&) = delete;
    ManyMappings& operator=(const ManyMappings&) = delete;

private:
    const std::size_t _page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t _size = 200 * _page;
    void* const _start;
};

}  // namespace

class CrashSafeFileTest : public testing::Test
{
protected:
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    const std::string _previous = _path + '~';
};

TEST_F(CrashSafeFileTest, WritesAFileThatWasNotThere)
{
    CrashSafeFile file(_path);
    EXPECT_FALSE(file.Exists());

    file.Replace("[a]\nb=c\n");

    EXPECT_TRUE(file.Exists());
    EXPECT_EQ(file.Read(), "[a]\nb=c\n");
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini"}));
}

TEST_F(CrashSafeFileTest, ReplacesTheWholeContent)
{
    WriteFile(_path, OldContent);
    CrashSafeFile file(_path);

    for (const std::string& content : {std::string("short"), std::string(), std::string("a\0b\n", 4), NewContent,
                                       std::string(1u << 20, 'x') + "end"})
    {
        file.Replace(content);
        ASSERT_EQ(ContentOf(_path), content);
        ASSERT_EQ(file.Read(), content);
    }
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini"}));
}

TEST_F(CrashSafeFileTest, WorksOnAPathWithoutAFolder)
{
    const fs::path before = fs::current_path();
    fs::current_path(_folder.GetPath());
    CrashSafeFile("user.ini").Replace(NewContent);
    fs::current_path(before);

    EXPECT_EQ(ContentOf(_path), NewContent);
}

TEST_F(CrashSafeFileTest, AFreshFileGetsTheModeThatWasAskedForLessTheUmask)
{
    const mode_t before = ::umask(027);
    CrashSafeFile(_path).Replace("");
    CrashSafeFile(_folder.PathOf("secret"), CrashSafeFile::KeepNone, 0600).Replace("");
    ::umask(before);

    EXPECT_EQ(StatusOf(_path).st_mode & 07777u, 0640u);
    EXPECT_EQ(StatusOf(_folder.PathOf("secret")).st_mode & 07777u, 0600u);
}

TEST_F(CrashSafeFileTest, KeepsModeOwnerAndGroupOfAnExistingFile)
{
    WriteFile(_path, OldContent);
    const bool isRoot = ::geteuid() == 0;
    const uid_t owner = isRoot ? 1234 : ::geteuid();
    const gid_t group = isRoot ? 4321 : ::getegid();
    ASSERT_EQ(::chown(_path.c_str(), owner, group), 0);
    ASSERT_EQ(::chmod(_path.c_str(), 0664), 0);

    CrashSafeFile(_path, CrashSafeFile::KeepNone, 0600).Replace(NewContent);

    EXPECT_EQ(StatusOf(_path).st_mode & 07777u, 0664u);
    EXPECT_EQ(StatusOf(_path).st_uid, owner);
    EXPECT_EQ(StatusOf(_path).st_gid, group);
}

TEST_F(CrashSafeFileTest, OwnerGroupAndModeThatAreRightAlreadyAreNotSet)
{
    WriteFile(_path, OldContent);
    ASSERT_EQ(::chmod(_path.c_str(), 0640), 0);
    FaultyFileSystem fileSystem;
    fileSystem.FailAlwaysAt("SetOwner", EPERM);
    CrashSafeFile file(_path, CrashSafeFile::KeepPrevious, 0640, fileSystem);
    for (const std::string& content : {NewContent, OldContent, NewContent})
    {
        file.Replace(content);
        EXPECT_EQ(StatusOf(_path).st_mode & 07777u, 0640u);
    }
    EXPECT_THAT(fileSystem.GetCalls(), testing::Not(testing::Contains("SetOwner")));

    ASSERT_EQ(::chmod(_path.c_str(), 0600), 0);
    FaultyFileSystem refusing;
    refusing.FailAlwaysAt("SetMode", EPERM);
    CrashSafeFile(_path, CrashSafeFile::KeepPrevious, 0640, refusing).Replace(OldContent);
    EXPECT_EQ(ContentOf(_path), OldContent);
}

TEST_F(CrashSafeFileTest, AGroupThatCannotBeKeptGetsNoMoreRightsThanEverybody)
{
    WriteFile(_path, OldContent);
    ASSERT_EQ(::chmod(_path.c_str(), 0664), 0);
    FaultyFileSystem fileSystem;
    fileSystem.LetFilesBelongTo(::geteuid(), 4321);
    fileSystem.FailAlwaysAt("SetOwner", EPERM);

    CrashSafeFile(_path, CrashSafeFile::KeepNone, 0644, fileSystem).Replace(NewContent);

    EXPECT_EQ(ContentOf(_path), NewContent);
    EXPECT_EQ(StatusOf(_path).st_mode & 07777u, 0644u);
}

TEST_F(CrashSafeFileTest, AnOwnerThatCannotBeKeptLeavesTheGroupItsRights)
{
    for (const gid_t group : {::getegid(), gid_t{4321}})
    {
        SCOPED_TRACE(group);
        WriteFile(_path, OldContent);
        ASSERT_EQ(::chmod(_path.c_str(), 0660), 0);
        FaultyFileSystem fileSystem;
        fileSystem.LetFilesBelongTo(1234, group);
        constexpr std::size_t setOwner = 5;
        fileSystem.FailAt(setOwner, FaultyFileSystem::FailOnce, EPERM);
        fileSystem.LetOwnersBeSet();

        CrashSafeFile(_path, CrashSafeFile::KeepNone, 0644, fileSystem).Replace(NewContent);

        EXPECT_EQ(fileSystem.GetCalls()[setOwner], "SetOwner");
        EXPECT_EQ(ContentOf(_path), NewContent);
        EXPECT_EQ(StatusOf(_path).st_mode & 07777u, 0660u);
    }
}

TEST_F(CrashSafeFileTest, FollowsSymbolicLinksToTheFileThatIsReplaced)
{
    fs::create_directory(_folder.PathOf("data"));
    WriteFile(_folder.PathOf("data/real.ini"), OldContent);
    fs::create_symlink("real.ini", _folder.PathOf("data/step.ini"));
    fs::create_symlink(_folder.PathOf("data/step.ini"), _path);
    CrashSafeFile file(_path, CrashSafeFile::KeepPrevious);

    file.Replace(NewContent);

    EXPECT_TRUE(fs::is_symlink(_path));
    EXPECT_TRUE(fs::is_symlink(_folder.PathOf("data/step.ini")));
    EXPECT_EQ(ContentOf(_folder.PathOf("data/real.ini")), NewContent);
    EXPECT_EQ(file.Read(), NewContent);
    EXPECT_EQ(file.ReadPrevious(), OldContent);
    EXPECT_EQ(NamesIn(_folder.PathOf("data")), (Names{"real.ini", "real.ini~", "step.ini"}));
}

TEST_F(CrashSafeFileTest, ALinkToNothingSaysWhereTheFileGoes)
{
    fs::create_symlink("elsewhere.ini", _path);
    CrashSafeFile file(_path);
    EXPECT_FALSE(file.Exists());

    file.Replace(NewContent);

    EXPECT_TRUE(fs::is_symlink(_path));
    EXPECT_EQ(ContentOf(_folder.PathOf("elsewhere.ini")), NewContent);
}

TEST_F(CrashSafeFileTest, LinksThatGoInACircleAreAnError)
{
    fs::create_symlink("other", _path);
    fs::create_symlink("user.ini", _folder.PathOf("other"));

    EXPECT_EQ(MessageOf([&] { CrashSafeFile(_path).Replace(NewContent); }),
              "Failed to follow the links of '" + _path + "': " + std::strerror(ELOOP));
}

TEST_F(CrashSafeFileTest, KeepsTheGenerationBefore)
{
    CrashSafeFile file(_path, CrashSafeFile::KeepPrevious);

    file.Replace("first");
    EXPECT_EQ(ContentOf(_previous), std::nullopt);
    file.Replace("second");
    EXPECT_EQ(file.ReadPrevious(), "first");
    file.Replace("third");
    EXPECT_EQ(file.ReadPrevious(), "second");
    EXPECT_EQ(file.Read(), "third");
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini", "user.ini~"}));
}

TEST_F(CrashSafeFileTest, KeepsTheGenerationBeforeWhereItIsTheFileItself)
{
    WriteFile(_path, OldContent);
    fs::create_hard_link(_path, _previous);

    CrashSafeFile(_path, CrashSafeFile::KeepPrevious).Replace(NewContent);

    EXPECT_EQ(ContentOf(_path), NewContent);
    EXPECT_EQ(ContentOf(_previous), OldContent);
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini", "user.ini~"}));
}

TEST_F(CrashSafeFileTest, CopiesTheGenerationBeforeWhereThereAreNoHardLinks)
{
    WriteFile(_path, OldContent);
    ASSERT_EQ(::chmod(_path.c_str(), 0640), 0);
    WriteFile(_previous, OlderContent);
    FaultyFileSystem fileSystem;
    fileSystem.RefuseLinks();

    CrashSafeFile(_path, CrashSafeFile::KeepPrevious, 0644, fileSystem).Replace(NewContent);

    EXPECT_EQ(ContentOf(_path), NewContent);
    EXPECT_EQ(ContentOf(_previous), OldContent);
    EXPECT_EQ(StatusOf(_previous).st_mode & 07777u, 0640u);
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini", "user.ini~"}));
}

TEST_F(CrashSafeFileTest, RefusesWhatIsNoFile)
{
    EXPECT_EQ(MessageOf([&] { CrashSafeFile(_folder.GetPath()).Replace(NewContent); }),
              "Failed to replace '" + _folder.GetPath() + "': Not a regular file");
    EXPECT_EQ(MessageOf([&] { CrashSafeFile("/dev/null").Replace(NewContent); }),
              "Failed to replace '/dev/null': Not a regular file");
}

TEST_F(CrashSafeFileTest, NamesPathAndReasonWhereTheFolderIsMissing)
{
    const std::string path = _folder.PathOf("missing/user.ini");

    EXPECT_EQ(MessageOf([&] { CrashSafeFile(path).Replace(NewContent); }),
              "Failed to create a new file beside '" + path + "': No such file or directory");
    EXPECT_EQ(MessageOf([&] { CrashSafeFile(path).Read(); }),
              "Failed to open '" + path + "': No such file or directory");
}

TEST_F(CrashSafeFileTest, ReadingNamesPathAndReason)
{
    const std::string& folder = _folder.GetPath();
    EXPECT_EQ(MessageOf([&] { CrashSafeFile(folder).Read(); }), "Failed to read '" + folder + "': Is a directory");
    EXPECT_EQ(MessageOf([&] { CrashSafeFile(_path).ReadPrevious(); }),
              "Failed to open '" + _previous + "': No such file or directory");
}

TEST_F(CrashSafeFileTest, ReadsFilesOfAnySizeAndThoseThatTellNone)
{
    for (const std::size_t size : {0u, 1u, 4095u, 4096u, 4097u, 8192u, 100'000u})
    {
        const std::string content(size, 'x');
        WriteFile(_path, content);
        EXPECT_TRUE(CrashSafeFile(_path).Read() == content) << size;
    }

    const ManyMappings lengthen;
    const std::string mappings = CrashSafeFile("/proc/self/maps").Read();
    EXPECT_GT(mappings.size(), 4096u);
    EXPECT_EQ(mappings.back(), '\n');
}

TEST_F(CrashSafeFileTest, PassesOverTheLeftoversOfAPowerCut)
{
    FaultyFileSystem fileSystem;
    fileSystem.FailAt(2, FaultyFileSystem::FailOnce, EEXIST);

    CrashSafeFile(_path, CrashSafeFile::KeepNone, 0644, fileSystem).Replace(NewContent);

    EXPECT_EQ(fileSystem.GetCalls()[2], "Create");
    EXPECT_EQ(fileSystem.GetCalls()[3], "Create");
    EXPECT_EQ(ContentOf(_path), NewContent);
}

TEST_F(CrashSafeFileTest, GivesUpWhereEveryNameIsTaken)
{
    FaultyFileSystem fileSystem;
    fileSystem.FailAlwaysAt("Create", EEXIST);

    EXPECT_EQ(MessageOf([&] { CrashSafeFile(_path, CrashSafeFile::KeepNone, 0644, fileSystem).Replace(NewContent); }),
              "Failed to create a new file beside '" + _path + "': File exists");
}

TEST_F(CrashSafeFileTest, TheContentIsOnTheDiskBeforeItTakesTheName)
{
    WriteFile(_path, OldContent);
    FaultyFileSystem fileSystem;

    CrashSafeFile(_path, CrashSafeFile::KeepPrevious, 0644, fileSystem).Replace(NewContent);

    EXPECT_THAT(fileSystem.GetCalls(), ElementsAre("ReadLink", "Stat", "Create", "Write", "Stat", "SetMode", "Sync",
                                                   "Close", "Link", "Rename", "Unlink", "Rename", "SyncFolder"));
}

TEST_F(CrashSafeFileTest, FilesBesideItChangeTheirNamesBetweenItsRenameAndTheSyncOfTheFolder)
{
    FaultyFileSystem fileSystem;
    CrashSafeFile file(_path, CrashSafeFile::KeepNone, 0644, fileSystem);
    file.Replace("new", [&] {
        EXPECT_EQ(ContentOf(_path), "new");
        EXPECT_EQ(fileSystem.GetCalls().back(), "Rename");
    });
    EXPECT_EQ(fileSystem.GetCalls().back(), "SyncFolder");
    EXPECT_EQ(MessageOf([&] { file.Replace("newer", [] { throw Exception("no name"); }); }), "no name");
    EXPECT_EQ(ContentOf(_path), "newer");
}

TEST_F(CrashSafeFileTest, TellsWhichFileIsReplaced)
{
    EXPECT_EQ(CrashSafeFile(_path).GetTarget(), _path);
    std::filesystem::create_symlink("real.ini", _folder.PathOf("link.ini"));
    EXPECT_EQ(CrashSafeFile(_folder.PathOf("link.ini")).GetTarget(), _folder.PathOf("real.ini"));
}

TEST_F(CrashSafeFileTest, SyncsWhatSomebodyElseHasWrittenAndItsFolder)
{
    WriteFile(_path, OldContent);
    FaultyFileSystem fileSystem;

    CrashSafeFile(_path, CrashSafeFile::KeepPrevious, 0644, fileSystem).Sync();

    EXPECT_THAT(fileSystem.GetCalls(), ElementsAre("ReadLink", "OpenForReading", "Sync", "Close", "SyncFolder"));
    EXPECT_EQ(ContentOf(_path), OldContent);
    EXPECT_EQ(fileSystem.GetOpenFiles(), 0);
}

TEST_F(CrashSafeFileTest, AReaderNeverMeetsHalfAFile)
{
    constexpr int writers = 3;
    CrashSafeFile file(_path, CrashSafeFile::KeepPrevious);
    file.Replace(std::string(4000, '0'));

    std::atomic<int> running{writers};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer)
    {
        threads.emplace_back([&, writer] {
            for (int i = 0; i < 50; ++i)
            {
                CrashSafeFile(_path, CrashSafeFile::KeepPrevious)
                    .Replace(std::string(4000 + static_cast<std::size_t>(i), static_cast<char>('1' + writer)));
            }
            --running;
        });
    }
    do
    {
        const std::string content = file.Read();
        EXPECT_GE(content.size(), 4000u);
        EXPECT_EQ(content.find_first_not_of(content[0]), std::string::npos);
    } while (running != 0);
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(NamesIn(_folder.GetPath()), (Names{"user.ini", "user.ini~"}));
}

TEST_F(CrashSafeFileTest, TellsWhetherItCanBeReplacedAndChangesNothing)
{
    CrashSafeFile(_path).CheckReplaceable();
    EXPECT_EQ(NamesIn(_folder.GetPath()), Names());
    WriteFile(_path, "content");
    CrashSafeFile(_path, CrashSafeFile::KeepPrevious).CheckReplaceable();
    EXPECT_EQ(NamesIn(_folder.GetPath()), Names{"user.ini"});
    EXPECT_EQ(ContentOf(_path), "content");

    EXPECT_EQ(MessageOf([&] { CrashSafeFile(_folder.GetPath()).CheckReplaceable(); }),
              "Failed to replace '" + _folder.GetPath() + "': Not a regular file");
    const std::string nowhere = _folder.PathOf("none/user.ini");
    EXPECT_EQ(MessageOf([&] { CrashSafeFile(nowhere).CheckReplaceable(); }),
              "Failed to create a new file beside '" + nowhere + "': No such file or directory");
}

}  // namespace korlo::osa

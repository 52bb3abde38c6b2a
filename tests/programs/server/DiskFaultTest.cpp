// A disk that fails at any moment, below the persister, the store and the server.

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FileSettingsPersister.h"
#include "SettingsServer.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/SavedStore.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using core::IniFile;
using settings::server::SettingsManager;
using testing::AnyOf;
using testing::HasSubstr;

/// Two layers were saved before; the third one is saved while one call after the other fails.
class DiskFaultTest : public testing::Test
{
protected:
    /// Runs `saveThird` once for each call that it makes and each fault; says what the fault was.
    template <typename Function>
    void ForEachFault(Function saveThird)
    {
        for (const DiskFault& fault : DiskFaults)
        {
            bool hasFailed = true;
            for (std::size_t call = 0; hasFailed; ++call)
            {
                SCOPED_TRACE(std::string(fault.name) + " at call " + std::to_string(call));
                WriteFile(_path + '~', First);
                WriteFile(_path, Second);
                FaultyFileSystem disk;
                saveThird(disk, [&] { disk.FailAt(disk.GetCalls().size() + call, fault.kind, fault.error); });
                hasFailed = disk.HasFailed();
                EXPECT_EQ(disk.GetOpenFiles(), 0);
            }
        }
    }

    /// What a server that starts now makes of the files.
    std::string LayerAfterRestart() const
    {
        FileSettingsPersister persister(SettingsFiles({}), _path);
        persister.Prepare();
        EXPECT_THAT(NamesIn(_folder.GetPath()), testing::UnorderedElementsAre("user.ini", "user.ini~"));
        IniFile user;
        settings::server::SettingsCombiner combiner(user);
        persister.LoadUserSettings(combiner);
        return TextOf(user);
    }

    inline static const std::string First = "[A]\nk=first\n";
    inline static const std::string Second = "[A]\nk=second\n";
    inline static const std::string Third = "[A]\nk=third\n[B]\nk=" + std::string(20'000, 'b') + "\n";

    LogCapture _log;
    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
};

TEST_F(DiskFaultTest, WhateverFailsInASaveTheNextStartHasTheOldLayerOrTheNew)
{
    ForEachFault([&](FaultyFileSystem& disk, auto fail) {
        FileSettingsPersister persister(SettingsFiles({}), _path, disk);
        fail();
        const std::string message = MessageOf([&] { persister.SaveUserSettings(Ini(Third)); });

        if (message.empty())
        {
            EXPECT_EQ(LayerAfterRestart(), Third);
        }
        else
        {
            EXPECT_THAT(message, HasSubstr('\'' + _path));
            EXPECT_THAT(message, AnyOf(HasSubstr(std::strerror(ENOSPC)), HasSubstr(std::strerror(EIO))));
            EXPECT_THAT(LayerAfterRestart(), AnyOf(Second, Third));
        }
    });
}

TEST_F(DiskFaultTest, WhateverFailsInALoadItIsAnErrorOrAWholeLayer)
{
    ForEachFault([&](FaultyFileSystem& disk, auto fail) {
        FileSettingsPersister persister(SettingsFiles({}), _path, disk);
        IniFile user;
        settings::server::SettingsCombiner combiner(user);
        fail();
        const std::string message = MessageOf([&] { persister.LoadUserSettings(combiner); });

        if (message.empty())
        {
            EXPECT_THAT(TextOf(user), AnyOf(First, Second));
        }
        else
        {
            EXPECT_THAT(message, HasSubstr('\'' + _path));
            EXPECT_EQ(user, IniFile());
        }
        EXPECT_THAT(LayerAfterRestart(), AnyOf(First, Second));
    });
}

TEST_F(DiskFaultTest, TheStoreTellsItsCallerAndSavesTheChangeWithTheNextOne)
{
    ForEachFault([&](FaultyFileSystem& disk, auto fail) {
        FileSettingsPersister persister(SettingsFiles({}), _path, disk);
        SettingsManager store(&persister, nullptr, nullptr, false);
        fail();
        const std::string message = MessageOf([&] { store.MergeSettings(Ini(Third), 0); });

        EXPECT_THAT(LayerAfterRestart(), message.empty() ? AnyOf(Third, Third) : AnyOf(Second, Third));
        IniFile current;
        store.GetGroups(current, "*");
        EXPECT_EQ(TextOf(current), Third);  // what is in memory stays

        const bool hadFailed = disk.HasFailed();
        disk.FailAt(0, FaultyFileSystem::NoFault, 0);
        store.MergeSettings(Ini("[C]\nk=1\n"), 0);
        EXPECT_EQ(LayerAfterRestart(), Third + "[C]\nk=1\n");
        EXPECT_EQ(disk.HasFailed(), hadFailed);
    });
}

/// A server whose saves meet a failure of each of these calls.
class DiskFaultServerTest : public DiskFaultTest
{
protected:
    void ExpectToldAndServed(SaveBy saveBy, const std::vector<const char*>& calls) const;
};

void DiskFaultServerTest::ExpectToldAndServed(SaveBy saveBy, const std::vector<const char*>& calls) const
{
    FaultyFileSystem disk;
    SavedStore saved(_path, saveBy, disk);
    SettingsManager& store = saved.store;
    settings::server::SerializationManager serializers;
    SettingsServer::Listeners doors;
    doors.push_back(std::make_unique<osa::TcpListener>("127.0.0.1", 0));
    const unsigned short port = doors.front()->GetPort();
    AccessControl access(nullptr, std::nullopt);
    SettingsServer server(std::move(doors), {&store, &serializers}, access, ServerLimits());
    server.Start();
    RawClient bystander(port);
    EXPECT_TRUE(bystander.TestAndMerge("", Second));
    const auto set = [&](const std::string& call, int error) {
        disk.FailAlwaysAt(call, error);
        IniFile current;
        store.GetGroups(current, "*");  // whoever saves next has taken the store's lock after this
    };
    for (const char* call : calls)
    {
        SCOPED_TRACE(call);
        const std::string changes = "[A]\nk=" + std::string(call) + '\n';
        set(call, ENOSPC);
        {
            RawClient client(port);
            EXPECT_FALSE(client.TestAndMerge("", changes));
            EXPECT_TRUE(client.MeetsTheEnd());
        }
        EXPECT_EQ(bystander.Get("A"), changes);
        EXPECT_THAT(ContentOf(_path).value(), AnyOf(Second, changes));
        set("", 0);
        EXPECT_TRUE(bystander.TestAndMerge(changes, Second));
        EXPECT_EQ(SavedStore(_path, saveBy).GetLayer(), Second);
    }
    server.Stop();
    EXPECT_THAT(_log.GetMessages(), testing::SizeIs(calls.size()));
    EXPECT_THAT(_log.GetMessages(),
                testing::Each(testing::AllOf(testing::StartsWith("3 ClientConnection: Client '127.0.0.1:"),
                                             HasSubstr("its request failed: Failed to "), HasSubstr('\'' + _path),
                                             HasSubstr(std::strerror(ENOSPC)))));
}

TEST_F(DiskFaultServerTest, TheServerTellsOfASaveThatFailedAndServesOn)
{
    ExpectToldAndServed(SaveBy::Replacing, {"Create", "Write", "Sync", "Rename", "SyncFolder"});
}

TEST_F(DiskFaultServerTest, TheServerTellsOfAnAppendThatFailedAndServesOn)
{
    ExpectToldAndServed(SaveBy::Appending, {"Write", "SyncData", "Write", "SyncData"});
}

}  // namespace
}  // namespace korlo::daemon

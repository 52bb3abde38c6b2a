// What follows settings after the server was killed and came back, at the same address, with other settings.

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "korlo/core/Logger.h"
#include "settings/IniWatcher.h"
#include "settings/KorloSettingsClient.h"
#include "settings/LogManager.h"
#include "settings/SettingsWatcher.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/SettingsServer.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;
using core::Logger;
using testing::ElementsAre;

class ServerComesBackTest : public testing::Test
{
protected:
    ServerComesBackTest() { _client.ReportMissedChanges(true); }

    ~ServerComesBackTest() override { Logger::SetLogRotateFolder("/etc/logrotate.d"); }

    /// Ends the server in the middle of everything, and starts it with other defaults.
    void ComeBackWith(const std::string& defaults)
    {
        GetA();  // what was asked for before has arrived
        _pServer->DropClients();
        _pServer.reset();
        _pServer = std::make_unique<SettingsServer>(Ini(defaults), nullptr, _address);
    }

    /// Returns once everything that was missed has been delivered.
    void Settle()
    {
        // Until the client has noticed that its connection is lost, every call fails; and one more, if nobody waited.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!MessageOf([this] { GetA(); }).empty() && std::chrono::steady_clock::now() < end)
        {
            std::this_thread::yield();
        }
        GetA();
    }

    void GetA() const { static_cast<void>(_client.GetValue("[A]x")); }

    LogCapture _log;
    TemporaryFolder _folder;
    const std::string _address = "unix:" + _folder.PathOf("socket");
    std::unique_ptr<SettingsServer> _pServer = std::make_unique<SettingsServer>(
        Ini("[A]\nx=1\ny=1\n[B]\nx=1\n[C]\nx=1\n[Log]\nlog.level=1\nlog.file=" + _folder.PathOf("first") + "\n"),
        nullptr, _address);
    KorloSettingsClient _client{KorloSettingsClient::MultiThreaded};
};

TEST_F(ServerComesBackTest, AMirrorHoldsWhatIsDifferentAndItsSubscribersHearOfNothingElse)
{
    RecordingCallback callback;
    IniFile mirror;
    IniWatcher watcher(&_client, &mirror);
    watcher.AddPattern("*");
    ASSERT_TRUE(watcher.Update());
    _client.Subscribe(&callback, "*");
    const std::string log = TextOf(mirror).substr(TextOf(mirror).find("[Log]"));

    ComeBackWith("[A]\nx=2\ny=1\n[B]\nx=1\n[D]\nx=1\n" + log);
    Settle();
    EXPECT_TRUE(watcher.TryUpdate());
    EXPECT_EQ(mirror, Ini("[A]\nx=2\ny=1\n[B]\nx=1\n[D]\nx=1\n" + log));
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Change{{"A", "C", "D"}, Ini("[A]\nx=2\ny=1\n[D]\nx=1\n")}));
    EXPECT_FALSE(watcher.Update());
}

TEST_F(ServerComesBackTest, VariablesFollowWhatIsDifferent)
{
    int changed = 0;
    int same = 0;
    int gone = 0;
    SettingsWatcher watcher(&_client);
    watcher.AddSetting("A", "x", &changed);
    watcher.AddSetting("B", "x", &same);
    watcher.AddSetting("C", "x", &gone);
    ASSERT_TRUE(watcher.UpdateSettings());

    ComeBackWith("[A]\nx=2\n[B]\nx=1\n");
    Settle();
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_THAT((std::vector{changed, same, gone}), ElementsAre(2, 1, 0));
    EXPECT_FALSE(watcher.UpdateSettings());
}

TEST_F(ServerComesBackTest, VariablesAreNotWrittenWhenNothingThatTheyFollowIsDifferent)
{
    int same = 0;
    SettingsWatcher watcher(&_client);
    watcher.AddSetting("B", "x", &same);
    ASSERT_TRUE(watcher.UpdateSettings());

    ComeBackWith("[A]\nx=2\n[B]\nx=1\n");
    Settle();
    EXPECT_FALSE(watcher.UpdateSettings());
}

TEST_F(ServerComesBackTest, TheLogFollowsAGroupThatIsDifferent)
{
    Logger::SetLogRotateFolder(_folder.GetPath());
    const LogManager manager(&_client, "Log");
    Logger::GetLogger("Application")->Error("before");

    ComeBackWith("[Log]\nlog.level=3\nlog.file=" + _folder.PathOf("second") + "\n");
    Settle();
    Logger::GetLogger("Application")->Information("after");
    EXPECT_THAT(ContentOf(_folder.PathOf("first")).value_or(""), testing::HasSubstr("before"));
    EXPECT_THAT(ContentOf(_folder.PathOf("second")).value_or(""), testing::HasSubstr("after"));
}

}  // namespace
}  // namespace korlo::settings

// What the facade promises in every mode of operation.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "settings/KorloSettingsClient.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/SettingsServer.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;
using Mode = KorloSettingsClient::OperationMode;

constexpr const char* Defaults = "[A]\nx=1\ny=2\n[B]\nz=3\n";

/// A client over a store with defaults where the mode has any, filled by merges elsewhere.
class KorloSettingsClientModesTest : public testing::TestWithParam<Mode>
{
protected:
    KorloSettingsClientModesTest() { client.MergeSettings(Ini(Defaults)); }

    static bool HearsOfChanges()
    {
        return GetParam() != Mode::SingleThreaded && GetParam() != Mode::LocalSingleThreaded;
    }

    /// True when a store behind the client knows how to go back to its defaults.
    static bool HasDefaults()
    {
        return GetParam() != Mode::LocalSingleThreaded && GetParam() != Mode::LocalMultiThreaded;
    }

    std::string Everything()
    {
        IniFile settings;
        client.GetSettings("*", settings);
        return TextOf(settings);
    }

    SettingsServer server{Ini(Defaults)};
    KorloSettingsClient client{GetParam(), Ini(Defaults)};
};

TEST_P(KorloSettingsClientModesTest, ReadsGroupsByNameAndPattern)
{
    IniFile settings = Ini("[Mine]\nk=v\n");
    client.GetSettings("A", settings);
    EXPECT_EQ(TextOf(settings), "[A]\nx=1\ny=2\n[Mine]\nk=v\n");
    client.GetSettings(GroupNameCollection{"B*", "Nobody"}, settings);
    EXPECT_EQ(TextOf(settings), "[A]\nx=1\ny=2\n[B]\nz=3\n[Mine]\nk=v\n");
}

TEST_P(KorloSettingsClientModesTest, RefreshReadsTheGroupsOfTheDocumentAgain)
{
    IniFile settings = Ini("[A]\nx=old\nmine=1\n");
    client.RefreshSettings(settings);
    EXPECT_EQ(TextOf(settings), "[A]\nmine=1\nx=1\ny=2\n");
    IniFile nothing;
    client.RefreshSettings(nothing);
    EXPECT_TRUE(nothing.empty());
}

TEST_P(KorloSettingsClientModesTest, ReadsAndWritesSingleValues)
{
    EXPECT_EQ(client.GetValue("[A]x"), "1");
    EXPECT_EQ(client.GetValue("[A]missing"), "");
    EXPECT_EQ(client.GetValue("[Missing]x"), "");
    EXPECT_EQ(MessageOf([&] { client.GetValue("A.x"); }), "Failed to parse 'A.x' as a SettingLocator");
    EXPECT_EQ(MessageOf([&] { client.SetValue("A.x", ""); }), "Failed to parse 'A.x' as a SettingLocator");
    const std::string odd = std::string(" \"line\n.\nbreak\\ \r\t") + '\0' + "\xFF]=;#";
    client.SetValue("[A]x", odd);
    EXPECT_EQ(client.GetValue("[A]x"), odd);
    EXPECT_EQ(client.GetValue(SettingLocator("[A]y")), "2") << "the other keys of the group stay";
}

TEST_P(KorloSettingsClientModesTest, MergesWithAndWithoutPersistence)
{
    client.MergeSettings(Ini("[A]\nx=5\n[C]\nw=1\n"));
    client.MergeSettings(Ini("[A]\ny=6\n"), 1);
    EXPECT_EQ(Everything(), "[A]\nx=5\ny=6\n[B]\nz=3\n[C]\nw=1\n");
}

TEST_P(KorloSettingsClientModesTest, TestAndMergeSaysWhetherItMerged)
{
    EXPECT_TRUE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n")));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=3\n")));
    EXPECT_TRUE(client.TestAndMerge(IniFile(), IniFile()));
    EXPECT_EQ(client.GetValue("[A]x"), "2");
}

TEST_P(KorloSettingsClientModesTest, OverwritesAndErasesGroups)
{
    client.OverwriteSettings("A", Ini("[A]\nnew=1\n"));
    EXPECT_EQ(Everything(), "[A]\nnew=1\n[B]\nz=3\n");
    client.OverwriteSettings(Ini("[B]\nother=1\n[C]\nw=1\n"));
    EXPECT_EQ(Everything(), "[A]\nnew=1\n[B]\nother=1\n[C]\nw=1\n");
    client.OverwriteSettings(GroupNameCollection{"B", "C"}, Ini("[B]\nz=9\n"));
    EXPECT_EQ(Everything(), "[A]\nnew=1\n[B]\nz=9\n");
    client.EraseGroups("A");
    EXPECT_EQ(Everything(), "[B]\nz=9\n");
    client.EraseGroups(GroupNameCollection{"*"});
    EXPECT_EQ(Everything(), "");
}

TEST_P(KorloSettingsClientModesTest, RestoresGroupsToTheirDefaults)
{
    client.SetValue("[A]x", "9");
    client.SetValue("[B]z", "9");
    client.RestoreToDefaults("A");
    EXPECT_EQ(client.GetValue("[A]x"), HasDefaults() ? "1" : "9");
    client.RestoreToDefaults(GroupNameCollection{"B*"});
    EXPECT_EQ(client.GetValue("[B]z"), HasDefaults() ? "3" : "9");
}

TEST_P(KorloSettingsClientModesTest, HearsOfChangesOrRefusesToSubscribe)
{
    std::promise<Change> seen;
    FunctionCallback callback([&seen](const GroupNameCollection& groups, const IniFile& settings) {
        seen.set_value({groups, settings});
    });
    if (!HearsOfChanges())
    {
        EXPECT_EQ(MessageOf([&] { client.Subscribe(&callback, "A"); }),
                  "KorloSettingsClient::Subscribe not supported in single threaded mode");
        EXPECT_EQ(client.GetValue("[A]x"), "1");
        return;
    }
    client.Subscribe(&callback, "A");
    client.SetValue("[B]z", "5");
    client.SetValue("[A]x", "5");
    auto change = seen.get_future();
    ASSERT_EQ(change.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(change.get(), (Change{{"A"}, Ini("[A]\nx=5\ny=2\n")}));
}

TEST_P(KorloSettingsClientModesTest, UnSubscribeOfAStrangerDoesNothing)
{
    RecordingCallback callback;
    client.UnSubscribe(&callback);
    EXPECT_EQ(client.GetValue("[A]x"), "1");
}

TEST_P(KorloSettingsClientModesTest, UnSubscribeEndsTheCallsButInALocalStore)
{
    if (!HearsOfChanges())
    {
        return;
    }
    RecordingCallback callback;
    client.Subscribe(&callback, "A");
    client.UnSubscribe(&callback);
    std::promise<void> delivered;
    FunctionCallback other([&delivered](const GroupNameCollection&, const IniFile&) { delivered.set_value(); });
    client.SetValue("[A]x", "7");
    client.Subscribe(&other, "B");
    client.SetValue("[B]z", "7");
    ASSERT_EQ(delivered.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_EQ(callback.GetChanges().size(), GetParam() == Mode::Local ? 1u : 0u);
}

TEST_P(KorloSettingsClientModesTest, ACallbackMayChangeSettingsSubscribeAndUnsubscribe)
{
    if (!HearsOfChanges())
    {
        return;
    }
    std::promise<std::string> done;
    FunctionCallback last(
        [&done](const GroupNameCollection&, const IniFile& settings) { done.set_value(TextOf(settings)); });
    FunctionCallback first;
    std::atomic<bool> called = false;
    first.Do([&](const GroupNameCollection&, const IniFile&) {
        if (called.exchange(true))
        {
            return;  // in the local mode it is still called
        }
        client.UnSubscribe(&first);
        client.Subscribe(&last, "C");
        client.MergeSettings(Ini("[C]\nw=1\n"), 1);
    });
    client.Subscribe(&first, "A");
    client.SetValue("[A]x", "2");
    auto text = done.get_future();
    ASSERT_EQ(text.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(text.get(), "[C]\nw=1\n");
    EXPECT_EQ(client.GetValue("[C]w"), "1");
}

/// Many groups with values that need quotes.
IniFile LargeDocument()
{
    IniFile large;
    for (int group = 0; group < 50; ++group)
    {
        for (int key = 0; key < 20; ++key)
        {
            large.SetValue("Large/" + std::to_string(group), "key" + std::to_string(key),
                           " quoted\n" + std::string(80, 'x'));
        }
    }
    return large;
}

TEST_P(KorloSettingsClientModesTest, ACallbackHasTheStackToLogFormatAndParse)
{
    if (!HearsOfChanges())
    {
        return;
    }
    LogWatch log;
    const IniFile large = LargeDocument();
    std::promise<bool> done;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile& settings) {
        const std::string text = TextOf(settings);
        const IniFile parsed = Ini(text);
        core::Logger::GetLogger("Application")
            ->Error("got %zu groups, %f, %s", parsed.size(), 1.5, std::string(4000, 'y').c_str());
        client.MergeSettings(parsed, 1);
        done.set_value(parsed == large && settings == large);
    });
    std::atomic<bool> once = false;
    FunctionCallback guarded([&](const GroupNameCollection& groups, const IniFile& settings) {
        if (!once.exchange(true))
        {
            callback.OnChange(groups, settings);
        }
    });
    client.Subscribe(&guarded, "Large/*");
    client.MergeSettings(large, 1);
    auto equal = done.get_future();
    ASSERT_EQ(equal.wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(equal.get());
    EXPECT_EQ(client.GetValue("[Large/7]key7"), " quoted\n" + std::string(80, 'x'));
}

TEST_P(KorloSettingsClientModesTest, ManyThreadsShareOneClient)
{
    constexpr int threads = 4;
    constexpr int rounds = 25;
    client.SetValue("[Counter]count", "0");
    std::atomic<int> heard = 0;
    FunctionCallback callback([&heard](const GroupNameCollection&, const IniFile&) { ++heard; });
    if (HearsOfChanges())
    {
        client.Subscribe(&callback, "Counter");
    }
    std::vector<std::thread> incrementers;
    for (int thread = 0; thread < threads; ++thread)
    {
        incrementers.emplace_back([this, thread] {
            const std::string own = "[Own/" + std::to_string(thread) + "]value";
            for (int done = 0; done < rounds;)
            {
                const IniFile seen = Ini("[Counter]\ncount=" + client.GetValue("[Counter]count") + "\n");
                IniFile changed;
                changed.SetInt("Counter", "count", seen.GetIntOrDefault("Counter", "count", 0) + 1);
                done += client.TestAndMerge(seen, changed) ? 1 : 0;
                client.SetValue(own, std::to_string(done));
                EXPECT_EQ(client.GetValue(own), std::to_string(done));
            }
        });
    }
    for (std::thread& incrementer : incrementers)
    {
        incrementer.join();
    }
    EXPECT_EQ(client.GetValue("[Counter]count"), std::to_string(threads * rounds));
    EXPECT_TRUE(!HearsOfChanges() || heard > 0);
}

TEST_P(KorloSettingsClientModesTest, ANameThatAListCannotCarryIsRefusedButByALocalStore)
{
    IniFile settings;
    const std::string refusal =
        GetParam() == Mode::Local ? "" : "Group name '.' cannot be sent: it is a full stop or holds a line break";
    EXPECT_EQ(MessageOf([&] { client.GetSettings(".", settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { client.EraseGroups("."); }), refusal);
    EXPECT_EQ(MessageOf([&] { client.RestoreToDefaults("."); }), refusal);
    EXPECT_EQ(client.GetValue("[A]x"), "1");
}

TEST_P(KorloSettingsClientModesTest, AChangeOfSuchAGroupDisturbsNoSubscriber)
{
    if (!HearsOfChanges() || GetParam() == Mode::Local)
    {
        return;
    }
    LogWatch log;
    RecordingCallback callback;
    client.Subscribe(&callback, "*");
    IniFile hostile;
    hostile.SetValue("data\n.\nresult\nok", "k", "v");
    client.MergeSettings(hostile);
    EXPECT_EQ(client.GetValue("[A]x"), "1");
    EXPECT_TRUE(callback.GetChanges().empty());
    EXPECT_TRUE(log.WaitFor("4 ClientHandler: A change of group 'data\n.\nresult\nok' is not announced: its name does "
                            "not fit into a line"));
}

TEST_P(KorloSettingsClientModesTest, NoDescriptorPassesToAProgramThatIsStarted)
{
    EXPECT_EQ(client.GetValue("[A]x"), "1");
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        const int descriptor = std::stoi(entry.path().filename().string());
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        if (target.starts_with("socket:") && descriptor > 2)
        {
            EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }
}

TEST_P(KorloSettingsClientModesTest, ALocalFileOverridesTheMode)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("settings.ini");
    WriteFile(path, "[A]\nx=file\n");
    ::setenv("KORLO_SETTINGS_LOCALFILE", path.c_str(), 1);
    const KorloSettingsClient overFile(GetParam(), Ini(Defaults));
    ::setenv("KORLO_SETTINGS_LOCALFILE", "", 1);
    const KorloSettingsClient overDefaults(static_cast<Mode>(7), Ini(Defaults));
    ::unsetenv("KORLO_SETTINGS_LOCALFILE");
    EXPECT_EQ(overFile.GetValue("[A]x"), "file");
    EXPECT_EQ(overFile.GetValue("[A]y"), "2");
    EXPECT_EQ(overDefaults.GetValue("[A]x"), "1");
}

std::string NameOf(const testing::TestParamInfo<Mode>& mode)
{
    switch (mode.param)
    {
    case Mode::MultiThreaded:
        return "MultiThreaded";
    case Mode::SingleThreaded:
        return "SingleThreaded";
    case Mode::Local:
        return "Local";
    case Mode::LocalSingleThreaded:
        return "LocalSingleThreaded";
    case Mode::LocalMultiThreaded:
        return "LocalMultiThreaded";
    }
    return "Unknown";
}

INSTANTIATE_TEST_SUITE_P(Modes, KorloSettingsClientModesTest,
                         testing::Values(Mode::MultiThreaded, Mode::SingleThreaded, Mode::Local,
                                         Mode::LocalSingleThreaded, Mode::LocalMultiThreaded),
                         NameOf);

TEST(KorloSettingsClientOverTcpTest, OnlyTheLocalModeTakesDefaults)
{
    const SettingsServer server;
    for (const Mode mode :
         {Mode::MultiThreaded, Mode::SingleThreaded, Mode::Local, Mode::LocalSingleThreaded, Mode::LocalMultiThreaded})
    {
        const KorloSettingsClient client(mode, Ini(Defaults));
        EXPECT_EQ(client.GetValue("[A]x"), mode == Mode::Local ? "1" : "") << "mode " << static_cast<int>(mode);
    }
}

TEST(KorloSettingsClientOverTcpTest, AnInvalidModeIsRefused)
{
    EXPECT_EQ(MessageOf([] { KorloSettingsClient client(static_cast<Mode>(5)); }),
              "Invalid or unsupported operation mode");
}

TEST(KorloSettingsClientOverTcpTest, OneClientHearsOfTheChangesOfAnother)
{
    SettingsServer server;
    KorloSettingsClient subscriber(Mode::MultiThreaded);
    KorloSettingsClient changer(Mode::SingleThreaded);
    std::promise<Change> seen;
    FunctionCallback callback([&seen](const GroupNameCollection& groups, const IniFile& settings) {
        seen.set_value({groups, settings});
    });
    subscriber.Subscribe(&callback, "A*");
    EXPECT_EQ(subscriber.GetValue("[A]x"), "");  // the subscription has arrived
    changer.SetValue("[A]x", "1");
    auto change = seen.get_future();
    ASSERT_EQ(change.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(change.get(), (Change{{"A"}, Ini("[A]\nx=1\n")}));
}

TEST(KorloSettingsClientOverTcpTest, ASubscriberHearsOfChangesAgainAfterTheServerWasGone)
{
    LogWatch log;
    core::Logger::GetLogger("KorloSettings")->SetThreshold(core::LogLevelInformation);
    SettingsServer server;
    KorloSettingsClient subscriber(Mode::MultiThreaded);
    KorloSettingsClient changer(Mode::SingleThreaded);
    std::promise<void> seen;
    FunctionCallback callback([&seen](const GroupNameCollection&, const IniFile&) { seen.set_value(); });
    subscriber.Subscribe(&callback, "A*");
    EXPECT_EQ(changer.GetValue("[A]x"), "");
    EXPECT_EQ(subscriber.GetValue("[A]x"), "");
    server.DropClients();
    ASSERT_TRUE(log.WaitFor("6 KorloSettings: Connected to korlo-settings-server, releasing semaphore", 2));
    EXPECT_EQ(log.Count("6 KorloSettings: Resubscribing 1 groups"), 1);
    EXPECT_EQ(MessageOf([&] { subscriber.GetValue("[A]x"); }),
              "GetSettings failed to communicate with korlo-settings-server");
    EXPECT_EQ(subscriber.GetValue("[A]x"), "");
    EXPECT_EQ(changer.GetValue("[A]x"), "") << "the single-threaded client connects anew within its call";
    changer.SetValue("[A]x", "1");
    EXPECT_EQ(seen.get_future().wait_for(30s), std::future_status::ready);
}

TEST(KorloSettingsClientOverTcpTest, AClientMayBeDestroyedWhileItsCallbacksRun)
{
    SettingsServer server;
    for (int round = 0; round < 5; ++round)
    {
        std::atomic<int> calls = 0;
        std::promise<void> first;
        FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
            if (calls++ == 0)
            {
                first.set_value();
            }
        });
        {
            KorloSettingsClient client(Mode::MultiThreaded);
            client.Subscribe(&callback, "A");
            for (int change = 0; change < 50; ++change)
            {
                client.SetValue("[A]x", std::to_string(change));
            }
            first.get_future().wait();
        }
    }
}

}  // namespace
}  // namespace korlo::settings

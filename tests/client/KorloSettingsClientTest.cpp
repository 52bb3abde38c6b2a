#include "settings/KorloSettingsClient.h"

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;

constexpr const char* LocalFile = "KORLO_SETTINGS_LOCALFILE";

IniFile All(const KorloSettingsClient& client)
{
    IniFile all;
    client.GetSettings("*", all);
    return all;
}

/// Starts without the variable that makes every client local, and leaves it as it was.
class LocalFileTest : public testing::Test
{
protected:
    LocalFileTest()
    {
        if (const char* pValue = std::getenv(LocalFile))
        {
            _before = pValue;
        }
        ::unsetenv(LocalFile);
    }

    ~LocalFileTest() override
    {
        if (_before)
        {
            ::setenv(LocalFile, _before->c_str(), 1);
        }
        else
        {
            ::unsetenv(LocalFile);
        }
    }

private:
    std::optional<std::string> _before;
};

/// A local client over a few defaults.
class KorloSettingsClientTest : public LocalFileTest
{
protected:
    const IniFile defaults = Ini("[A]\nx=0\ny=0\n[B]\nz=0\n[Net/a]\nm=0\n[Net/b]\nm=0\n");
    KorloSettingsClient client{KorloSettingsClient::Local, defaults};
};

TEST_F(LocalFileTest, TheModesAreNumbered)
{
    EXPECT_EQ(KorloSettingsClient::MultiThreaded, 0);
    EXPECT_EQ(KorloSettingsClient::SingleThreaded, 1);
    EXPECT_EQ(KorloSettingsClient::Local, 2);
    EXPECT_EQ(KorloSettingsClient::LocalSingleThreaded, 3);
    EXPECT_EQ(KorloSettingsClient::LocalMultiThreaded, 4);
}

TEST_F(LocalFileTest, AModeThatDoesNotExistIsRefused)
{
    for (const int mode : {-1, 5, 7, 8, 1000})
    {
        EXPECT_EQ(MessageOf([&] { KorloSettingsClient(static_cast<KorloSettingsClient::OperationMode>(mode)); }),
                  "Invalid or unsupported operation mode");
        EXPECT_EQ(MessageOf([&] {
                      KorloSettingsClient(static_cast<KorloSettingsClient::OperationMode>(mode), Ini("[A]\n"));
                  }),
                  "Invalid or unsupported operation mode");
    }
}

TEST_F(LocalFileTest, AnEmptyVariableMakesAnyModeALocalClientOverItsDefaults)
{
    ::setenv(LocalFile, "", 1);
    for (const int mode : {-1, 0, 1, 2, 3, 4, 5, 7, 1000})
    {
        SCOPED_TRACE(mode);
        const auto operationMode = static_cast<KorloSettingsClient::OperationMode>(mode);
        EXPECT_EQ(All(KorloSettingsClient(operationMode, Ini("[A]\nx=1\n"))), Ini("[A]\nx=1\n"));
        EXPECT_TRUE(All(KorloSettingsClient(operationMode)).empty());
    }
}

TEST_F(LocalFileTest, ValuesOfTheFileOverrideTheDefaultsKeyByKey)
{
    const TemporaryFolder folder;
    WriteFile(folder.PathOf("local.ini"), "[A]\nx=file\n[New]\nn=1\n");
    ::setenv(LocalFile, folder.PathOf("local.ini").c_str(), 1);
    const KorloSettingsClient client(KorloSettingsClient::MultiThreaded, Ini("[A]\nx=0\ny=0\n[B]\nz=0\n"));
    EXPECT_EQ(All(client), Ini("[A]\nx=file\ny=0\n[B]\nz=0\n[New]\nn=1\n"));
    EXPECT_EQ(All(KorloSettingsClient(KorloSettingsClient::SingleThreaded)), Ini("[A]\nx=file\n[New]\nn=1\n"));
}

TEST_F(LocalFileTest, TheFileIsReadOnceAndNeverWritten)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("local.ini");
    const std::string text = "# mine\n[A]\nx=file\n";
    WriteFile(path, text);
    ::setenv(LocalFile, path.c_str(), 1);
    KorloSettingsClient client(KorloSettingsClient::Local);
    client.SetValue("[A]x", "changed");
    EXPECT_EQ(ContentOf(path), text);

    WriteFile(path, "[A]\nx=later\n");
    client.RestoreToDefaults("A");
    EXPECT_EQ(client.GetValue("[A]x"), "file");
}

TEST_F(LocalFileTest, AFileThatCannotBeReadIsNamedWithTheReason)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("missing.ini");
    ::setenv(LocalFile, path.c_str(), 1);
    const std::string message = MessageOf([] { const KorloSettingsClient client(KorloSettingsClient::Local); });
    EXPECT_NE(message.find("'" + path + "'"), std::string::npos) << message;
    EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;
}

TEST_F(KorloSettingsClientTest, SetsAndGetsOneValue)
{
    client.SetValue("[Network]mode", "dhcp");
    std::string mode = client.GetValue("[Network]mode");
    EXPECT_EQ(mode, "dhcp");
    client.SetValue(SettingLocator("Network", "mode"), "fixed");
    EXPECT_EQ(client.GetValue(SettingLocator("Network", "mode")), "fixed");
}

TEST_F(KorloSettingsClientTest, AMissingValueIsTheEmptyString)
{
    EXPECT_EQ(client.GetValue("[Missing]x"), "");
    EXPECT_EQ(client.GetValue("[A]missing"), "");
    EXPECT_EQ(client.GetValue(SettingLocator("Missing", "x")), "");
}

TEST_F(KorloSettingsClientTest, ABadLocatorIsNamed)
{
    EXPECT_EQ(MessageOf([&] { client.GetValue("A.x"); }), "Failed to parse 'A.x' as a SettingLocator");
    EXPECT_EQ(MessageOf([&] { client.SetValue("A.x", "1"); }), "Failed to parse 'A.x' as a SettingLocator");
    EXPECT_EQ(All(client), defaults);
}

TEST_F(KorloSettingsClientTest, SettingOneValueLeavesTheOthersOfItsGroup)
{
    client.SetValue("[A]x", "1");
    IniFile group;
    client.GetSettings("A", group);
    EXPECT_EQ(group, Ini("[A]\nx=1\ny=0\n"));
}

TEST_F(KorloSettingsClientTest, GetSettingsTakesACollectionOrOneEntryAndPatterns)
{
    IniFile settings;
    client.GetSettings(GroupNameCollection{"B", "Net/*"}, settings);
    EXPECT_EQ(settings, Ini("[B]\nz=0\n[Net/a]\nm=0\n[Net/b]\nm=0\n"));
    client.GetSettings("A*", settings);
    EXPECT_EQ(settings, defaults);
}

TEST_F(KorloSettingsClientTest, RefreshReadsTheGroupsOfTheDocumentAgain)
{
    IniFile settings = Ini("[A]\nx=old\nown=1\n[Missing]\nk=1\n");
    client.RefreshSettings(settings);
    EXPECT_EQ(settings, Ini("[A]\nx=0\ny=0\nown=1\n[Missing]\nk=1\n"));
}

TEST_F(KorloSettingsClientTest, RefreshOfAnEmptyDocumentLeavesItEmpty)
{
    IniFile settings;
    client.RefreshSettings(settings);
    EXPECT_TRUE(settings.empty());
}

TEST_F(KorloSettingsClientTest, AMergeWithoutFlagsLastsAndTheFirstFlagKeepsItFromLasting)
{
    client.MergeSettings(Ini("[Lasting]\nx=1\n"));
    client.MergeSettings(Ini("[Passing]\nx=1\n"), 1);
    client.RestoreToDefaults("*");
    // What lasts is in the user layer, and that is what a restore clears.
    EXPECT_FALSE(All(client).HasGroup("Lasting"));
    EXPECT_TRUE(All(client).HasGroup("Passing"));
}

TEST_F(KorloSettingsClientTest, TestAndMergeSaysWhetherItMerged)
{
    EXPECT_TRUE(client.TestAndMerge(Ini("[A]\nx=0\n"), Ini("[A]\nx=1\n")));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=0\n"), Ini("[A]\nx=2\n")));
    EXPECT_EQ(client.GetValue("[A]x"), "1");
}

TEST_F(KorloSettingsClientTest, AnOverwriteReplacesTheSelectedGroups)
{
    client.OverwriteSettings(GroupNameCollection{"A", "Net/*"}, Ini("[A]\nw=1\n"));
    EXPECT_EQ(All(client), Ini("[A]\nw=1\n[B]\nz=0\n"));
    client.OverwriteSettings("B", Ini("[B]\nv=1\n"));
    EXPECT_EQ(All(client), Ini("[A]\nw=1\n[B]\nv=1\n"));
}

TEST_F(KorloSettingsClientTest, AnOverwriteByADocumentReplacesItsGroups)
{
    client.OverwriteSettings(Ini("[A]\nw=1\n[B]\n"));
    EXPECT_EQ(All(client), Ini("[A]\nw=1\n[B]\n[Net/a]\nm=0\n[Net/b]\nm=0\n"));
}

TEST_F(KorloSettingsClientTest, EraseIsAnOverwriteWithNothing)
{
    client.EraseGroups("A");
    EXPECT_EQ(All(client), Ini("[B]\nz=0\n[Net/a]\nm=0\n[Net/b]\nm=0\n"));
    client.EraseGroups(GroupNameCollection{"B", "Net/*"});
    EXPECT_TRUE(All(client).empty());
}

TEST_F(KorloSettingsClientTest, ARestoreTakesACollectionOrOneEntry)
{
    client.EraseGroups("*");
    client.RestoreToDefaults("A");
    EXPECT_EQ(All(client), Ini("[A]\nx=0\ny=0\n"));
    client.RestoreToDefaults(GroupNameCollection{"B", "Net/*"});
    EXPECT_EQ(All(client), defaults);
}

TEST_F(KorloSettingsClientTest, SubscribesToACollectionOrOneEntry)
{
    RecordingCallback one;
    RecordingCallback two;
    client.Subscribe(&one, "A");
    client.Subscribe(&two, GroupNameCollection{"A", "Net/*"});
    client.SetValue("[A]x", "1");
    client.SetValue("[Net/a]m", "1");
    EXPECT_EQ(one.GetChanges(), (std::vector<Change>{{{"A"}, Ini("[A]\nx=1\ny=0\n")}}));
    EXPECT_EQ(two.GetChanges(),
              (std::vector<Change>{{{"A"}, Ini("[A]\nx=1\ny=0\n")}, {{"Net/a"}, Ini("[Net/a]\nm=1\n")}}));
}

TEST_F(KorloSettingsClientTest, UnsubscribingAnUnknownCallbackDoesNothing)
{
    RecordingCallback callback;
    RecordingCallback unknown;
    client.Subscribe(&callback, "A");
    client.UnSubscribe(&unknown);
    client.UnSubscribe(nullptr);
    client.SetValue("[A]x", "1");
    EXPECT_EQ(callback.GetChanges().size(), 1u);
}

// Meant: a local client keeps its subscribers in a dispatcher of its own, which UnSubscribe does not reach.
TEST_F(KorloSettingsClientTest, AnUnsubscribedCallbackOfALocalClientGoesOnBeingCalled)
{
    RecordingCallback callback;
    client.Subscribe(&callback, "A");
    client.UnSubscribe(&callback);
    client.SetValue("[A]x", "1");
    EXPECT_EQ(callback.GetChanges().size(), 1u);
}

TEST_F(KorloSettingsClientTest, ACallbackMayUseTheClientThatCallsIt)
{
    std::string seen;
    FunctionCallback callback;
    callback.Do([&](const GroupNameCollection&, const IniFile&) {
        seen = client.GetValue("[A]x");
        client.SetValue("[B]z", "from within");
        client.UnSubscribe(&callback);
    });
    client.Subscribe(&callback, "A");
    client.SetValue("[A]x", "1");
    EXPECT_EQ(seen, "1");
    EXPECT_EQ(client.GetValue("[B]z"), "from within");
}

TEST_F(KorloSettingsClientTest, CallbacksAreNotDeletedWithTheClient)
{
    RecordingCallback callback;
    {
        KorloSettingsClient passing(KorloSettingsClient::Local, defaults);
        passing.Subscribe(&callback, "A");
        passing.SetValue("[A]x", "1");
    }
    EXPECT_EQ(callback.GetChanges().size(), 1u);
}

}  // namespace
}  // namespace korlo::settings

// A client whose connection is cut again and again, at any byte, while settings change: its subscribers always come to
// hold what the store holds, and hear of nothing that is as it was. With KORLO_LONG_TESTS in the environment there are
// a thousand cuts.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/common/GroupNameMatcher.h"
#include "support/Documents.h"
#include "support/FaultProxy.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/SettingsServer.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings::client
{
namespace
{

using core::IniFile;
using Client = KorloSettingsClientImplMultiThreaded;

constexpr unsigned short Nowhere = 1;  // nobody listens on that port

IniFile Select(const IniFile& settings, const GroupNameCollection& groups)
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    IniFile selected;
    matcher.MergeMatchingGroups(settings, selected);
    return selected;
}

/// Holds what it was told, and notes each call for a group that was as it is.
///
/// Thread safety: all methods, from any thread.
class Mirror : public IChangeCallback
{
public:
    /// Reads its groups, then subscribes to them.
    Mirror(Client& client, GroupNameCollection groups) : _groups(std::move(groups))
    {
        client.GetSettings(_groups, _settings);
        client.Subscribe(this, _groups);
    }

    void OnChange(const GroupNameCollection& changedGroups, const IniFile& settings) override
    {
        const std::lock_guard lock(_mutex);
        for (const std::string& group : changedGroups)
        {
            const IniFile before = Select(_settings, {group});
            _settings.RemoveGroup(group);
            _settings.MergeSettings(settings, group);
            if (Select(_settings, {group}) == before)
            {
                _needless.insert(group);
            }
        }
    }

    /// What it holds, and what it should, if that is something else.
    void ExpectToHold(const IniFile& store) const
    {
        const std::lock_guard lock(_mutex);
        EXPECT_EQ(TextOf(_settings), TextOf(Select(store, _groups)));
    }

    /// The groups of needless calls since it was last asked.
    GroupNameCollection TakeNeedless()
    {
        const std::lock_guard lock(_mutex);
        return std::exchange(_needless, {});
    }

private:
    const GroupNameCollection _groups;
    mutable std::mutex _mutex;
    IniFile _settings;
    GroupNameCollection _needless;
};

class MissedChangesCutTest : public testing::TestWithParam<bool>
{
protected:
    MissedChangesCutTest()
    {
        osa::ServiceDirectory::Register(KorloSettingsTcpConnection::ServerHost,
                                        GetParam() ? "unix:" + _folder.PathOf("socket") : "127.0.0.1",
                                        GetParam() ? static_cast<unsigned short>(0) : _proxy.GetPort());
    }

    int Random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(_random); }

    /// Changes a group, or erases it, or changes it and changes it back; its name.
    std::string Change()
    {
        const std::vector<std::string> groups{"A", "B", "N/0", "N/1", "N/2", "N/3"};
        const std::string group = groups[static_cast<std::size_t>(Random(static_cast<int>(groups.size())))];
        server::SettingsManager& store = _server.GetStore();
        IniFile before;
        store.GetGroups(before, group);
        if (Random(4) == 0)
        {
            store.OverwriteSettings({group}, IniFile());
        }
        else
        {
            IniFile change;
            change.SetInt(group, "key" + std::to_string(Random(3)), Random(1000));
            store.MergeSettings(change, 0);
        }
        if (Random(4) == 0)
        {
            store.OverwriteSettings({group}, before);
        }
        return group;
    }

    GroupNameCollection Change(int times)
    {
        GroupNameCollection changed;
        for (int time = 0; time < times; ++time)
        {
            changed.insert(Change());
        }
        return changed;
    }

    void ArmAtAnyByte()
    {
        _proxy.Arm(Random(2) == 0 ? FaultProxy::Reset : FaultProxy::HalfClose,
                   Random(2) == 0 ? FaultProxy::ToServer : FaultProxy::ToClient, static_cast<std::size_t>(Random(160)));
    }

    /// Nobody is there while settings change, and when somebody is, the connection breaks once more.
    GroupNameCollection ChangeWhileAway()
    {
        _proxy.SetServerPort(Nowhere);
        _proxy.ResetAll();
        Change(Random(4));
        ArmAtAnyByte();
        _proxy.SetServerPort(_server.GetPort());
        return {};
    }

    /// The connection breaks while settings change. What is notified while the client catches up comes twice.
    GroupNameCollection ChangeWhileConnected()
    {
        ArmAtAnyByte();
        return Change(1 + Random(4));
    }

    /// Returns once everything has been delivered.
    void Settle() const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        IniFile settings;
        while (!MessageOf([&] { _client.GetSettings({"Settle"}, settings); }).empty())
        {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "The client does not come back";
            std::this_thread::yield();
        }
    }

    LogCapture _log;  // what breaks is logged, and is meant to break here
    TemporaryFolder _folder;
    std::mt19937 _random{4711};  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same cuts each time
    SettingsServer _server{Ini("[A]\nkey0=1\n[N/0]\nkey0=1\n[N/1]\nkey1=1\n[Still]\nkey=1\n")};
    FaultProxy _proxy =
        GetParam() ? FaultProxy(_server.GetPort(), _folder.PathOf("socket")) : FaultProxy(_server.GetPort());
    Client _client{new KorloSettingsTcpConnection, WaitLimits{.pauseMs = 1}};
};

INSTANTIATE_TEST_SUITE_P(Doors, MissedChangesCutTest, testing::Values(false, true),
                         [](const auto& door) { return door.param ? "Unix" : "Tcp"; });

TEST_P(MissedChangesCutTest, EachSubscriberComesToHoldWhatTheStoreHolds)
{
    const int rounds = std::getenv("KORLO_LONG_TESTS") != nullptr ? 1000 : 30;
    _client.ReportMissedChanges(true);
    Mirror names(_client, {"A", "B", "Still"});
    Mirror pattern(_client, {"N/*"});
    Mirror everything(_client, {"*"});
    const std::vector<Mirror*> mirrors{&names, &pattern, &everything};
    Settle();  // the server has the subscriptions
    for (int round = 0; round < rounds && !HasFailure(); ++round)
    {
        SCOPED_TRACE(round);
        const GroupNameCollection mayComeTwice = Random(2) == 0 ? ChangeWhileAway() : ChangeWhileConnected();
        Settle();
        IniFile store;
        _server.GetStore().GetGroups(store, "*");
        for (Mirror* pMirror : mirrors)
        {
            pMirror->ExpectToHold(store);
            const GroupNameCollection needless = pMirror->TakeNeedless();
            EXPECT_TRUE(std::includes(mayComeTwice.begin(), mayComeTwice.end(), needless.begin(), needless.end()));
        }
        if (round % 50 == 0)
        {
            _server.DropClients();
        }
    }
}

}  // namespace
}  // namespace korlo::settings::client

// What a client is being sent while its rules change.

#include <chrono>
#include <future>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/AccessControl.h"
#include "access/AccessRulesReader.h"
#include "control/AccessWords.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/FakeUsers.h"
#include "support/Files.h"
#include "support/RecordingPersister.h"
#include "support/StoppingBuffer.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

/// A store, and a client to whom the first thing that it is sent is still being handed when the rules change.
class AccessReloadTest : public testing::Test
{
protected:
    AccessReloadTest()
    {
        WriteFile(_rules, "[Access/a]\nread=*\n");
        control.Replace(AccessRulesReader(_users).Read({_rules}).pRules);
    }

    /// Calls `send`, which has the client sent something, and reloads rules that hide Private meanwhile.
    template <typename Send>
    void ReloadWhile(const Send& send)
    {
        std::future<void> sent = std::async(std::launch::async, send);
        ASSERT_EQ(out.stopped.get_future().wait_for(30s), std::future_status::ready);
        WriteFile(_rules, "[Access/a]\nread=*\ndeny=Private\n");
        std::future<core::IniFile> answered = std::async(std::launch::async, [this] { return _reload.Answer(""); });
        EXPECT_EQ(answered.wait_for(50ms), std::future_status::timeout) << "something by the rules before is under way";
        out.go.set_value();
        ASSERT_EQ(answered.wait_for(30s), std::future_status::ready);
        EXPECT_EQ(TextOf(answered.get()), "[Access]\nrules=1\n");
        EXPECT_THAT(out.str(), HasSubstr("k=1"));
        sent.get();
    }

    settings::server::RecordingPersister persister = [] {
        settings::server::RecordingPersister loaded;
        loaded.defaults = {Ini("[Private]\nk=1\n")};
        return loaded;
    }();
    settings::server::SettingsManager store{&persister, nullptr, nullptr, false};
    settings::server::SerializationManager serialization;
    settings::server::ServerEnv env{&store, &serialization};
    AccessControl control{nullptr, std::nullopt};
    ClientAccess access{control, {}, "x"};
    StoppingBuffer out;
    std::ostream stream{&out};

private:
    const TemporaryFolder _folder;
    const std::string _rules = _folder.PathOf("rules.ini");
    const FakeUsers _users;
    AccessReloadWord _reload{control, _users, {_rules}};
};

TEST_F(AccessReloadTest, AnswersOnceANotificationByTheRulesBeforeWasSent)
{
    std::istringstream in("*\n.\n");
    settings::server::ClientHandler handler(&env, &in, &stream, nullptr, &access);
    std::istringstream noOptions;
    handler.Subscribe(noOptions);
    ReloadWhile([this] { store.MergeSettings(Ini("[Private]\nm=1\n"), 0); });
    const std::string before = out.str();
    store.MergeSettings(Ini("[Private]\nm=2\n"), 0);
    EXPECT_EQ(out.str(), before);
}

TEST_F(AccessReloadTest, AnswersOnceAnAnswerByTheRulesBeforeWasSent)
{
    std::istringstream request("get\n*\n.\n");
    settings::server::ClientHandler handler(&env, &request, &stream, nullptr, &access);
    ReloadWhile([&handler] { handler.Run(); });
    const std::string before = out.str();
    std::istringstream in("get\n*\n.\ndump all\n");
    settings::server::ClientHandler(&env, &in, &stream, nullptr, &access).Run();
    EXPECT_THAT(out.str().substr(before.size()), Not(HasSubstr("Private")));
}

}  // namespace
}  // namespace korlo::daemon

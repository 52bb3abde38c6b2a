#include "control/JournalWords.h"

#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "control/ControlDoor.h"
#include "korlo/osa/TcpListener.h"
#include "support/JournalClients.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using settings::server::ChangeOutcome;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::int64_t FixedClock()
{
    return 1'795'321'592'007;  // 2026-11-22 04:26:32.007 UTC
}

/// A control door to a journal.
class JournalWordsTest : public testing::Test
{
protected:
    JournalWordsTest() { Open(&_journal); }

    void Open(Journal* pJournal, const ControlDoor::Limits& limits = {})
    {
        _pDoor.reset();
        ControlDoor::Words words;
        words["journal"] = std::make_unique<JournalWord>(pJournal);
        words["follow"] = std::make_unique<FollowWord>(pJournal);
        _pDoor =
            std::make_unique<ControlDoor>(std::make_unique<osa::TcpListener>(_address, 0), std::move(words), limits);
        _pDoor->Start();
    }

    /// The next answer of a door.
    static std::string Answer(RawClient& client)
    {
        const std::string first = client.ReadLine();
        return first == "ok" ? client.ReadBlock() : first;
    }

    std::string Ask(const std::string& request) const
    {
        RawClient client(_address);
        client.Send(request + '\n');
        return Answer(client);
    }

    const TemporaryFolder _folder;
    const std::string _address = "unix:" + _folder.PathOf("control");
    Journal _journal{Journal::UsualEntries, &FixedClock};
    std::unique_ptr<ControlDoor> _pDoor;
};

TEST_F(JournalWordsTest, TellsAllThereIsToKnowOfAnEntry)
{
    Enter(_journal, UserClient(::getuid(), "web\x1b", 812), {{"Audio", {"volume", ""}}, {"Net", {}}});
    Enter(_journal, TcpClient(1), {{"Audio", {"volume"}}}, ChangeOutcome::Refused);
    Enter(_journal, TcpClient(1), {{"Audio", {"volume"}}}, ChangeOutcome::Refused);
    EXPECT_THAT(Ask("journal"),
                AllOf(StartsWith("[Change/0000000001]\ncount=1\ngroup.1=Audio\ngroup.2=Net\nkey.1=[Audio]volume\n"
                                 "key.2=[Audio]\noperation=merge\noutcome=done\npeer=unix:/run/korlo-settings/socket\n"
                                 "pid=812\nprogram=\"web\\x1B\"\ntime=2026-11-22T04:26:32.007Z\nuser="),
                      testing::EndsWith("[Change/0000000002]\ncount=2\ngroup.1=Audio\nkey.1=[Audio]volume\n"
                                        "operation=merge\noutcome=refused\npeer=192.0.2.1:4000\n"
                                        "time=2026-11-22T04:26:32.007Z\n")));
}

TEST_F(JournalWordsTest, NamesOfAnyBytesReadBackAsTheyWere)
{
    const std::string odd("a]\"\n\0.", 6);
    Enter(_journal, TcpClient(1), {{odd, {odd}}});
    core::IniFile document;
    document.LoadFromString(Ask("journal"));
    EXPECT_EQ(document.GetValueOrDefault("Change/0000000001", "group.1"), odd);
    EXPECT_EQ(document.GetValueOrDefault("Change/0000000001", "key.1"), "[\"a]\\\"\\n\\x00.\"]" + odd);
}

TEST_F(JournalWordsTest, CountsWhatIsLeftOut)
{
    Keys keys = {{"A", {}}, {std::string(2000, 'z'), {"k"}}};
    for (int i = 100; i < 500; ++i)
    {
        keys[0].second.push_back("key" + std::to_string(i));
    }
    Enter(_journal, TcpClient(1), keys);
    const std::string answer = Ask("journal");
    EXPECT_THAT(answer, AllOf(HasSubstr("\nkey.113="), Not(HasSubstr("\nkey.114=")), HasSubstr("\nmore=288\n"),
                              HasSubstr("\nmore.groups=1\n")));
    EXPECT_LT(answer.size(), 4096u);
}

TEST_F(JournalWordsTest, GivesTheLastEntriesThatAreAskedFor)
{
    EXPECT_EQ(Ask("journal"), "");
    for (int i = 1; i <= 30; ++i)
    {
        Enter(_journal, TcpClient(1), {{"A", {std::to_string(i)}}});
    }
    EXPECT_THAT(Ask("journal 2"), AllOf(StartsWith("[Change/0000000029]\n"), HasSubstr("\n[Change/0000000030]\n")));
    EXPECT_EQ(Ask("journal 0"), "");
    EXPECT_THAT(Ask("journal 1000"), StartsWith("[Change/0000000001]\n"));
}

TEST_F(JournalWordsTest, WhatMakesNoSenseIsAnError)
{
    for (const char* operand : {"x", "-1", "1 2", "99999999999999999999"})
    {
        EXPECT_EQ(Ask(std::string("journal ") + operand), "error usage: journal [N]");
        EXPECT_EQ(Ask(std::string("follow ") + operand), "error usage: follow [NUMBER]");
    }
}

TEST_F(JournalWordsTest, AServerWithoutAJournalSaysSo)
{
    Open(nullptr);
    for (const char* request : {"journal", "follow"})
    {
        EXPECT_EQ(Ask(request), "error the server was started with --journal 0: it keeps no journal");
    }
}

TEST_F(JournalWordsTest, AFollowerGetsWhatCameAfterItsNumberAndThenWhatComes)
{
    Enter(_journal, TcpClient(1), {{"A", {"x"}}});
    Enter(_journal, TcpClient(1), {{"A", {"y"}}});
    RawClient client(_address);
    client.Send("follow 1\n");
    EXPECT_THAT(Answer(client), StartsWith("[Change/0000000002]\n"));
    Enter(_journal, TcpClient(1), {{"A", {"z"}}});
    EXPECT_THAT(Answer(client), StartsWith("[Change/0000000003]\n"));
}

TEST_F(JournalWordsTest, WithoutANumberAFollowerGetsOnlyWhatComes)
{
    Enter(_journal, TcpClient(1), {{"A", {"x"}}});
    RawClient client(_address);
    client.Send("follow\n");
    EXPECT_EQ(Answer(client), "");
    Enter(_journal, TcpClient(1), {{"A", {"y"}}});
    EXPECT_THAT(Answer(client), StartsWith("[Change/0000000002]\n"));
}

TEST_F(JournalWordsTest, ARenewedEntryIsToldAgain)
{
    Enter(_journal, TcpClient(1), {{"A", {"x"}}});
    RawClient client(_address);
    client.Send("follow 0\n");
    EXPECT_THAT(Answer(client), StartsWith("[Change/0000000001]\ncount=1\n"));
    Enter(_journal, TcpClient(1), {{"A", {"x"}}});
    EXPECT_THAT(Answer(client), StartsWith("[Change/0000000001]\ncount=2\n"));
}

TEST_F(JournalWordsTest, AFollowerMissesNothingOfABusyJournal)
{
    constexpr int changes = 200;
    RawClient client(_address);
    client.Send("follow 0\n");
    const std::jthread writer([this] {
        for (int i = 1; i <= changes; ++i)
        {
            Enter(_journal, TcpClient(1), {{"Counter", {"value"}}});
            Enter(_journal, TcpClient(1), {{"A", {std::to_string(i)}}});
        }
    });
    int last = 0;
    std::string count;
    while (last < changes + 1 || count != std::to_string(changes))
    {
        core::IniFile document;
        document.LoadFromString(Answer(client));
        for (const auto& [group, values] : document)
        {
            const int number = std::stoi(group.substr(group.find('/') + 1));
            ASSERT_LE(number, last + 1) << "a gap";
            last = std::max(last, number);
            count = number == 1 ? values.at("count") : count;
        }
        ASSERT_TRUE(client.GetStream().good());
    }
}

TEST_F(JournalWordsTest, TheNextRequestEndsAFollow)
{
    RawClient client(_address);
    client.Send("follow\n");
    EXPECT_EQ(Answer(client), "");
    client.Send("journal\nnonsense\n");
    EXPECT_EQ(Answer(client), "");
    EXPECT_EQ(Answer(client), "error unknown word 'nonsense'");
    client.Send("follow 0\njournal x\n");
    EXPECT_EQ(Answer(client), "") << "requests may come at once";
    EXPECT_EQ(Answer(client), "error usage: journal [N]");
}

TEST_F(JournalWordsTest, FollowersThatLeaveMakeRoomForOthers)
{
    for (int round = 0; round < 3; ++round)
    {
        std::list<RawClient> clients;
        for (std::size_t i = 0; i < ControlDoor::MostClients; ++i)
        {
            ASSERT_TRUE(Eventually([&] {
                RawClient& client = clients.emplace_back(_address);
                client.Send("follow\n");
                const bool isIn = client.ReadLine() == "ok";
                if (!isIn)
                {
                    clients.pop_back();
                }
                return isIn;
            }));
        }
    }
}

TEST_F(JournalWordsTest, AFollowerThatStallsHoldsUpNobody)
{
    RawClient stalled(_address);
    stalled.Send("follow 0\n");
    EXPECT_EQ(Answer(stalled), "");
    // More than its socket takes, in time: each round is an answer that nobody reads.
    for (int i = 0; i < 300; ++i)
    {
        Enter(_journal, TcpClient(1), {{std::string(1000, 'g'), {std::to_string(i)}}});
    }
    EXPECT_THAT(Ask("journal 1"), HasSubstr("key.1=[g"));
}

TEST_F(JournalWordsTest, AFollowerThatTakesNothingIsDisconnected)
{
    constexpr unsigned int idleMs = 60'000;
    constexpr unsigned int writeMs = 50;
    Open(&_journal, {idleMs, writeMs});
    RawClient idle(_address);  // which the limit is not about
    idle.Send("follow\n");
    EXPECT_EQ(Answer(idle), "");
    RawClient stalled(_address);
    stalled.Send("follow\n");
    EXPECT_EQ(Answer(stalled), "");
    int changes = 0;
    EXPECT_TRUE(Eventually([&] {
        // What its socket holds is a few answers; the idle one takes its own.
        const std::string name = std::to_string(++changes);
        for (int i = 0; i < 60; ++i)
        {
            Enter(_journal, TcpClient(1), {{std::string(1000, 'g'), {name + ' ' + std::to_string(i)}}});
        }
        Answer(idle);
        return (stalled.GetSocket().Wait(false, false, 0) & osa::TcpSocket::Readable) != 0;
    }));
    EXPECT_THAT(Ask("journal 1"), HasSubstr("key.1=[g"));
}

TEST_F(JournalWordsTest, TheEndOfTheServerEndsAFollowAtOnce)
{
    RawClient client(_address);
    client.Send("follow\n");
    EXPECT_EQ(Answer(client), "");
    std::future<void> stopped = std::async(std::launch::async, [this] { _pDoor.reset(); });
    EXPECT_TRUE(client.MeetsTheEnd());
    EXPECT_EQ(stopped.wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

}  // namespace
}  // namespace korlo::daemon

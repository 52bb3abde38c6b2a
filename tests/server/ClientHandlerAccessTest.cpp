// A connection whose client may not do everything.

#include "settings/server/ClientHandler.h"

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/Documents.h"
#include "support/ExchangeStore.h"
#include "support/FakeAccess.h"
#include "support/ProtocolExchanges.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

using Refusal = std::pair<std::string, GroupNameCollection>;

constexpr const char* ReadRefused = "get delimited\nKorloSettings/Trusted/Refused\n.\n";

FakeRights Rights(std::vector<std::string> read, std::vector<std::string> change = {},
                  std::vector<std::string> deny = {})
{
    FakeRights rights;
    rights.read = std::move(read);
    rights.change = std::move(change);
    rights.deny = std::move(deny);
    return rights;
}

/// Calls the test before the request of that number, counted from 0, is read.
struct CallingGate : IRequestGate
{
    bool BeforeRequest() override
    {
        beforeRequest(requests++);
        return true;
    }

    void BeforeStore(RequestKind) override { ++storeUses; }

    std::function<void(int)> beforeRequest = [](int) {};
    int requests = 0;
    int storeUses = 0;
};

/// A store of open and hidden groups, and one client.
class ClientHandlerAccessTest : public testing::Test
{
protected:
    ClientHandlerAccessTest()
    {
        persister.defaults = {Ini("[Open]\nk=1\n[Open/Sub]\nk=2\n[Hidden]\nk=3\n")};
        loader.documents = {Ini("[OpenSecure]\npin=1\n[HiddenSecure]\npin=2\n")};
    }

    std::string Serve(const std::string& requests)
    {
        std::istringstream in(requests);
        std::ostringstream out;
        ClientHandler(&env, &in, &out, &gate, &access).Run();
        return out.str();
    }

    std::string Everything() const
    {
        std::ostringstream out;
        store.DumpAllSettings(out);
        out << "---\n";
        store.DumpUserSettings(out);
        return out.str();
    }

    /// The client is refused, and nothing else happens.
    void ExpectRefused(const std::string& request, const std::string& answer, const Refusal& refusal)
    {
        SCOPED_TRACE(request);
        const std::string before = Everything();
        const int saves = persister.saveCount;
        access.refusals.clear();
        gate.storeUses = 0;
        EXPECT_EQ(Serve("subscribe\n*\n.\n" + request), answer);
        EXPECT_EQ(Everything(), before);
        EXPECT_EQ(persister.saveCount, saves);
        EXPECT_THAT(access.refusals, ElementsAre(refusal));
        EXPECT_EQ(gate.storeUses, 1) << "the subscription";
    }

    RecordingPersister persister;
    RecordingRestrictedLoader loader;
    SettingsManager store{&persister, &loader, nullptr, true};
    SerializationManager serialization;
    ServerEnv env{&store, &serialization};
    CallingGate gate;
    FakeAccess access{Rights({"Open*", "KorloSettings/Data/*"}, {"Open*"})};

    void SetUp() override { store.LoadSettings(); }
};

const std::string OpenGroups = "[Open]\nk=1\n[Open/Sub]\nk=2\n[OpenSecure]\npin=1\n";
const std::string Record = "[KorloSettings/Data/DeletedGroups]\n";

TEST_F(ClientHandlerAccessTest, AGetLeavesHiddenGroupsOut)
{
    EXPECT_EQ(Serve("get\nOpen\nHidden\n.\n"), "[Open]\nk=1\n");
    EXPECT_EQ(Serve("get\nHidden\n.\n"), "");
    EXPECT_EQ(Serve("get\n*\n.\n"), OpenGroups);
    EXPECT_EQ(Serve("get delimited\n*d*\nOpen\n.\n"), "data\n[Open]\nk=1\n.\n");
    EXPECT_EQ(Serve("get delimited\nHiddenSecure\n.\n"), "data\n.\n");
    EXPECT_EQ(Serve("get delimited\n.\n"), "data\n.\n");
}

TEST_F(ClientHandlerAccessTest, AGetInPhpArraysCountsVisibleGroupsAlone)
{
    const std::string open = "a:1:{s:4:\"Open\";a:1:{s:1:\"k\";s:1:\"1\";}}\n\n";
    EXPECT_EQ(Serve("serialize phparray\nget\nOpen\nHidden\n.\n"), open);
    EXPECT_EQ(Serve("serialize phparray\nget delimited\nOpen\nH*\n.\n"), "data\n" + open + ".\n");
    EXPECT_EQ(Serve("serialize phparray\nget delimited\nHidden\n.\n"), "data\na:0:{}\n\n.\n");
}

TEST_F(ClientHandlerAccessTest, RestrictedGroupsAreReadAsTheRulesSay)
{
    EXPECT_EQ(Serve("get\nOpenSecure\nHiddenSecure\n.\n"), "[OpenSecure]\npin=1\n");
    access.Set(Rights({"Open*"}, {}, {"*Secure"}));
    EXPECT_EQ(Serve("get\nOpenSecure\n.\nget\n*\n.\n"), "[Open]\nk=1\n[Open/Sub]\nk=2\n");
}

TEST_F(ClientHandlerAccessTest, AGroupsOwnNameMayHoldAnAsterisk)
{
    store.MergeSettings(Ini("[Open*]\nk=4\n[Hidden*]\nk=5\n"), 0);
    access.Set(Rights({"Open*", "*n*"}, {}, {"H*", "Open/*", "OpenS*"}));
    EXPECT_EQ(Serve("get\nOpen*\n.\n"), "[Open]\nk=1\n[Open*]\nk=4\n");
    EXPECT_EQ(Serve("get\nHidden*\n.\n"), "");
}

TEST_F(ClientHandlerAccessTest, DumpsLeaveHiddenGroupsOut)
{
    store.MergeSettings(Ini("[Open]\nk=9\n[Hidden]\nk=9\n"), 0);
    EXPECT_EQ(Serve("dump\n"), "[Open]\nk=9\n.\n");
    EXPECT_EQ(Serve("dump all\n"), "[Open]\nk=9\n[Open/Sub]\nk=2\n[OpenSecure]\npin=1\n.\n");
    access.Set(Rights({}));
    EXPECT_EQ(Serve("dump\ndump all\n"), ".\n.\n");
}

TEST_F(ClientHandlerAccessTest, ADumpNumbersTheVisibleErasedGroupsAnew)
{
    for (const char* entry : {"Hidden", "Open/Z", "*", "Open/Y*", "Open/A"})
    {
        store.OverwriteSettings(entry, Ini(""));
    }
    EXPECT_EQ(Serve("dump\n"), Record + "1=Open/Z\n2=Open/Y*\n3=Open/A\n.\n");
    access.Set(Rights({"Other", "KorloSettings/Data/*"}));
    EXPECT_EQ(Serve("dump\n"), ".\n");
    access.Set(Rights({"Open*"}));
    EXPECT_EQ(Serve("dump\n"), ".\n") << "the record is a group that may have to be readable itself";
}

TEST_F(ClientHandlerAccessTest, EntriesOfARecordThatIsReadByNameAreHiddenToo)
{
    store.MergeSettings(Ini(Record + "1=Hidden\n2=Open\n"), 0);
    const std::string visible = Record + "1=Open\n";
    EXPECT_EQ(Serve("get\nKorloSettings/Data/DeletedGroups\n.\n"), visible);
    EXPECT_EQ(Serve("get\nKorlo*\n.\n"), visible);
    EXPECT_EQ(Serve("dump all\n"), visible + OpenGroups + ".\n");
}

TEST_F(ClientHandlerAccessTest, InfoListsOnlyEntriesThatReachNoFurtherThanTheClient)
{
    EXPECT_EQ(Serve("subscribe\n*\nOpen\nOpen/*\nHidden\nH*\n*n\n.\ninfo subscribed\n"),
              "Subscribed groups\n-----------------\nOpen\nOpen/*\n\n");
}

TEST_F(ClientHandlerAccessTest, ANotificationNamesAndTellsVisibleGroupsAlone)
{
    gate.beforeRequest = [this](int number) {
        if (number == 1)
        {
            store.MergeSettings(Ini("[Hidden]\nk=8\n[Open]\nk=8\n"), 0);
            store.MergeSettings(Ini("[Hidden]\nk=9\n"), 0);
            store.OverwriteSettings(GroupNameCollection{"Hid*", "Open/Sub"}, Ini(""));
        }
    };
    EXPECT_EQ(Serve("subscribe\n*\n.\n"), "async change\nOpen\n.\n[Open]\nk=8\n.\nasync change\nOpen/Sub\n.\n.\n");
}

TEST_F(ClientHandlerAccessTest, NothingIsSentWhenNothingVisibleChanged)
{
    gate.beforeRequest = [this](int number) {
        if (number == 1)
        {
            store.MergeSettings(Ini("[Hidden]\nk=8\n"), 0);
            store.OverwriteSettings("H*", Ini(""));
            store.RestoreToDefaults([] {
                common::GroupNameMatcher matcher;
                matcher.AddNameOrPattern("Hidden");
                return matcher;
            }());
        }
    };
    EXPECT_EQ(Serve("subscribe\n*\nHidden\n.\n"), "");
}

TEST_F(ClientHandlerAccessTest, ANotificationInPhpArraysCountsVisibleGroupsAlone)
{
    gate.beforeRequest = [this](int number) {
        if (number == 2)
        {
            store.MergeSettings(Ini("[Hidden]\nk=8\n[Open]\nk=8\n"), 0);
        }
    };
    EXPECT_EQ(Serve("serialize phparray\nsubscribe\n*\n.\n"),
              "async change\nOpen\n.\na:1:{s:4:\"Open\";a:1:{s:1:\"k\";s:1:\"8\";}}\n\n.\n");
}

TEST_F(ClientHandlerAccessTest, AChangedNameWithAnAsteriskBringsInNoHiddenGroup)
{
    store.MergeSettings(Ini("[Opal]\nk=7\n"), 0);
    access.Set(Rights({"O*"}, {}, {"Opal"}));
    gate.beforeRequest = [this](int number) {
        if (number == 1)
        {
            store.MergeSettings(Ini("[O*]\nk=8\n"), 0);
        }
    };
    EXPECT_EQ(Serve("subscribe\n*\n.\n"), "async change\nO*\n.\n[O*]\nk=8\n" + OpenGroups + ".\n");
}

TEST_F(ClientHandlerAccessTest, ARecordThatChangesIsNotAnnouncedToWhoMaySeeAPartOfIt)
{
    gate.beforeRequest = [this](int number) {
        if (number == 1)
        {
            store.OverwriteSettings("Hidden", Ini(""));
            common::GroupNameMatcher record;
            record.AddNameOrPattern("KorloSettings/*");
            store.RestoreToDefaults(record);
            store.MergeSettings(Ini(Record + "1=Hidden\n"), 0);
        }
    };
    EXPECT_EQ(Serve("subscribe\n*\n.\n"), "");
}

TEST_F(ClientHandlerAccessTest, AChangeThatIsAllowedIsMade)
{
    access.Set(Rights({}, {"Open*"}));
    EXPECT_EQ(Serve("merge\n[Open]\nk=9\n.\nmerge nopersist\n[Open/Sub]\nk=9\n.\n"
                    "test-and-merge\n[Open]\nk=9\n.\n[Open]\nk=8\n.\noverwrite\nOpen/*\n.\n[Open/New]\n.\n"
                    "restore\nOpen\n.\nget\nOpen*\n.\n"),
              "result\nok\n[Open]\nk=1\n[Open/New]\n[OpenSecure]\npin=1\n");
    EXPECT_THAT(access.refusals, IsEmpty());
}

TEST_F(ClientHandlerAccessTest, ARefusedChangeChangesAndAnswersNothing)
{
    ExpectRefused("merge\n[Open]\nk=9\n[Hidden]\nk=9\n.\n", "", {"merge", {"Hidden"}});
    ExpectRefused("merge nopersist\n[Hidden]\nk=9\n[Other]\n.\n", "", {"merge nopersist", {"Hidden", "Other"}});
    ExpectRefused("overwrite\nOpen\n*\n.\n[Open]\nk=9\n.\n", "", {"overwrite", {"*"}});
    ExpectRefused("overwrite\nOpen\n.\n[Hidden]\nk=9\n.\n", "", {"overwrite", {"Hidden"}});
    ExpectRefused("restore\nOpen\nO*\nHidden\n.\n", "", {"restore", {"Hidden", "O*"}});
}

TEST_F(ClientHandlerAccessTest, NobodyWithLessThanEverythingChangesTheRecord)
{
    access.Set(Rights({"*"}, {"Open", "KorloSettings/*"}));
    const std::string name = "KorloSettings/Data/DeletedGroups";
    ExpectRefused("merge\n" + Record + "1=Open\n.\n", "", {"merge", {name}});
    ExpectRefused("overwrite\nKorloSettings/Data/*\n.\n.\n", "", {"overwrite", {"KorloSettings/Data/*"}});
    ExpectRefused("restore\n" + name + "\n.\n", "", {"restore", {name}});
}

TEST_F(ClientHandlerAccessTest, ARefusedTestAndMergeAnswersFailure)
{
    const std::string failure = "result\nfailure\n";
    ExpectRefused("test-and-merge\n.\n[Hidden]\nk=9\n.\n", failure, {"test-and-merge", {"Hidden"}});
    ExpectRefused("test-and-merge\n[Hidden]\nk=3\n.\n[Open]\nk=9\n.\n", failure, {"test-and-merge", {"Hidden"}});
    ExpectRefused("test-and-merge\n[Hidden]\nk=4\n.\n.\n", failure, {"test-and-merge", {"Hidden"}});
    ExpectRefused("test-and-merge\n[HiddenSecure]\npin=2\n.\n.\n", failure, {"test-and-merge", {"HiddenSecure"}});
}

TEST_F(ClientHandlerAccessTest, TheRecordCannotBeGuessedByTests)
{
    store.MergeSettings(Ini(Record + "1=Hidden\n"), 0);
    ExpectRefused("test-and-merge\n" + Record + "1=Hidden\n.\n.\n", "result\nfailure\n",
                  {"test-and-merge", {"KorloSettings/Data/DeletedGroups"}});
}

TEST_F(ClientHandlerAccessTest, RestrictedGroupsAreDroppedFromAChangeFirst)
{
    EXPECT_EQ(Serve("merge\n[Open]\nk=9\n[HiddenSecure]\npin=9\n[OpenSecure]\npin=9\n"
                    "[KorloSettings/Trusted/Refused]\noperation=x\n.\n"
                    "test-and-merge\n.\n[HiddenSecure]\npin=9\n.\n"
                    "overwrite\nOpen/Sub\n.\n[HiddenSecure]\npin=9\n.\nget\n*\n.\n"),
              "result\nok\n[Open]\nk=9\n[OpenSecure]\npin=1\n");
    EXPECT_THAT(access.refusals, IsEmpty());
    EXPECT_EQ(Serve(ReadRefused), "data\n.\n");
}

TEST_F(ClientHandlerAccessTest, ARefusalIsReadOnceByItsExactName)
{
    EXPECT_EQ(Serve("overwrite\nHid*\n.\n[Hidden]\n.\n"
                    "merge\n[Other]\n.\n"
                    "get\n*\n.\nget\nKorloSettings/Trusted/*\n.\nget\nKorloSettings/Trusted/Refuse\n.\ndump all\n" +
                    std::string(ReadRefused) + ReadRefused),
              OpenGroups + OpenGroups +
                  ".\n"
                  "data\n[KorloSettings/Trusted/Refused]\ngroup.1=Hid*\ngroup.2=Hidden\noperation=overwrite\n.\n"
                  "data\n.\n");
    EXPECT_EQ(access.refusals.size(), 2u);
}

TEST_F(ClientHandlerAccessTest, EachRefusedOperationIsNamedAsItsCommandIs)
{
    const std::vector<std::pair<std::string, std::string>> requests = {
        {"merge\n[X]\n.\n", "merge"},
        {"merge nopersist\n[X]\n.\n", "merge nopersist"},
        {"test-and-merge\n.\n[X]\n.\n", "test-and-merge"},
        {"overwrite\nX\n.\n.\n", "overwrite"},
        {"restore\nX\n.\n", "restore"},
    };
    for (const auto& [request, operation] : requests)
    {
        EXPECT_EQ(Serve("serialize ini\n" + request + "get\nKorloSettings/Trusted/Refused\n.\n"),
                  (operation == "test-and-merge" ? "result\nfailure\n" : "") +
                      ("[KorloSettings/Trusted/Refused]\ngroup.1=X\noperation=" + operation + "\n"));
    }
}

TEST_F(ClientHandlerAccessTest, ARefusalIsReadBesideOtherGroupsAndInPhpArrays)
{
    EXPECT_EQ(Serve("merge\n[X]\n.\nget\nOpen\nHidden\nKorloSettings/Trusted/Refused\nH*\n.\n"),
              "[KorloSettings/Trusted/Refused]\ngroup.1=X\noperation=merge\n[Open]\nk=1\n");
    EXPECT_EQ(Serve("merge\n[X]\n.\nserialize phparray\nget\nKorloSettings/Trusted/Refused\n.\n"),
              "a:1:{s:29:\"KorloSettings/Trusted/Refused\";a:2:{s:7:\"group.1\";s:1:\"X\";s:9:\"operation\";"
              "s:5:\"merge\";}}\n\n");
}

TEST_F(ClientHandlerAccessTest, ARefusalBelongsToItsConnection)
{
    EXPECT_EQ(Serve("merge\n[X]\n.\n"), "");
    EXPECT_EQ(Serve(ReadRefused), "data\n.\n");
    EXPECT_EQ(access.refusals.size(), 1u);
}

TEST_F(ClientHandlerAccessTest, ARefusalIsReadWhateverTheRightsSay)
{
    for (const FakeRights& rights : {Rights({}), Rights({"*"}), Rights({"*"}, {}, {"KorloSettings/Trusted/*"})})
    {
        access.Set(rights);
        EXPECT_EQ(Serve("merge\n[X]\n.\n" + std::string(ReadRefused)),
                  "data\n[KorloSettings/Trusted/Refused]\ngroup.1=X\noperation=merge\n.\n");
    }
}

TEST_F(ClientHandlerAccessTest, AReadThatIsCutOffForgetsNoRefusal)
{
    std::istringstream in("merge\n[X]\n.\nget\nKorloSettings/Trusted/Refused\n");
    std::ostringstream out;
    ClientHandler handler(&env, &in, &out, &gate, &access);
    handler.Run();
    EXPECT_EQ(out.str(), "");
    in.clear();
    in.str(ReadRefused);
    handler.Run();
    EXPECT_EQ(out.str(), "data\n[KorloSettings/Trusted/Refused]\ngroup.1=X\noperation=merge\n.\n");
}

TEST_F(ClientHandlerAccessTest, RightsThatChangeActAtOnce)
{
    gate.beforeRequest = [this](int number) {
        if (number == 3)  // between a read, a change and a subscription, and the same again
        {
            access.Set(Rights({}, {"Hidden"}));
            store.MergeSettings(Ini("[Hidden]\nk=5\n[Open]\nk=5\n"), 0);
        }
        if (number == 5)
        {
            access.Set(Rights({}));
            store.MergeSettings(Ini("[Hidden]\nk=6\n[Open]\nk=6\n"), 0);
        }
    };
    EXPECT_EQ(Serve("subscribe\n*\n.\nget\n*\n.\nmerge\n[Hidden]\nk=4\n.\n"  // 0, 1, 2
                    "merge\n[Hidden]\nk=4\n.\nget\n*\n.\n"                   // 3, 4
                    "get\n*\n.\n"),                                          // 5
              OpenGroups + "async change\nHidden\n.\n[Hidden]\nk=5\n.\n"
                           "async change\nHidden\n.\n[Hidden]\nk=4\n.\n[Hidden]\nk=4\n");
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("merge", {"Hidden"})));
}

TEST_F(ClientHandlerAccessTest, WithFullAccessEveryByteIsAsWithoutAnAccessObject)
{
    for (const Exchange& exchange : Exchanges)
    {
        SCOPED_TRACE(exchange.name);
        FakeAccess everything(Rights({}, {"*"}));
        for (IClientAccess* const pAccess :
             {static_cast<IClientAccess*>(nullptr), static_cast<IClientAccess*>(&everything)})
        {
            ExchangeStore exchangeStore;
            std::istringstream in(exchange.request);
            std::ostringstream out;
            ClientHandler(&exchangeStore.env, &in, &out, nullptr, pAccess).Run();
            EXPECT_EQ(out.str(), exchange.response);
            EXPECT_EQ(exchangeStore.User(), exchange.user);
            EXPECT_EQ(exchangeStore.Settings(), exchange.settings);
        }
        EXPECT_THAT(everything.refusals, IsEmpty());
    }
}

/// May everything, but has to be asked about each group.
struct AskedRights : FakeRights
{
    AskedRights() { change = {"*"}; }
    bool MayReadEverything() const override { return false; }
};

struct AskedAccess : IClientAccess
{
    std::shared_ptr<const IAccessRights> GetRights() const override { return std::make_shared<AskedRights>(); }
    void OnRefused(const std::string&, const GroupNameCollection&) override { ADD_FAILURE(); }
};

TEST_F(ClientHandlerAccessTest, WhereEveryGroupMayBeReadEveryByteIsAsUnasked)
{
    for (const Exchange& exchange : Exchanges)
    {
        SCOPED_TRACE(exchange.name);
        AskedAccess asked;
        ExchangeStore exchangeStore;
        std::istringstream in(exchange.request);
        std::ostringstream out;
        ClientHandler(&exchangeStore.env, &in, &out, nullptr, &asked).Run();
        EXPECT_EQ(out.str(), exchange.response);
        EXPECT_EQ(exchangeStore.User(), exchange.user);
        EXPECT_EQ(exchangeStore.Settings(), exchange.settings);
    }
}

}  // namespace
}  // namespace korlo::settings::server

#include "journal/Journal.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "support/JournalClients.h"

namespace korlo::daemon
{
namespace
{

using settings::server::ChangeOutcome;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace operation = settings::server::operation;

std::atomic<std::int64_t> clockMs = 0;

std::int64_t ReadClock()
{
    return clockMs;
}

/// A journal of the usual size under a clock that the test sets.
class JournalTest : public testing::Test
{
protected:
    Journal _journal{Journal::UsualEntries, &ReadClock};
    const ClientOrigin _kim = UserClient(1000, "tool", 7);
    const ClientOrigin _web = UserClient(33, "php-fpm", 8);
};

TEST_F(JournalTest, KeepsWhoDidWhatAndWhen)
{
    clockMs = 1'500;
    Enter(_journal, _kim, {{"A", {"x", "y"}}}, ChangeOutcome::Failed, operation::Overwrite);
    const std::vector<JournalEntry> entries = EntriesOf(_journal);
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(TextOf(entries[0]), "1*1 [A]x [A]y");
    EXPECT_EQ(entries[0].timeMs, 1'500);
    EXPECT_EQ(entries[0].peer, "unix:/run/korlo-settings/socket");
    EXPECT_EQ(entries[0].user, 1000u);
    EXPECT_EQ(entries[0].process, 7);
    EXPECT_EQ(entries[0].program, "tool");
    EXPECT_STREQ(entries[0].what, "overwrite");
    EXPECT_EQ(entries[0].outcome, ChangeOutcome::Failed);
}

TEST_F(JournalTest, AChangeByNobodyIsEnteredToo)
{
    _journal.OnChange(nullptr, operation::Merge, ChangeOutcome::Done, NamesOf({{"A", {"x"}}}));
    const std::vector<JournalEntry> entries = EntriesOf(_journal);
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0].peer, "");
    EXPECT_FALSE(entries[0].user);
}

TEST_F(JournalTest, ARepeatedChangeKeepsItsPlaceAndRenewsTimeCountAndProcess)
{
    clockMs = 1;
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"y"}}});
    clockMs = 2;
    Enter(_journal, UserClient(1000, "tool", 99), {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*2 [A]x", "2*1 [A]y"));
    EXPECT_EQ(EntriesOf(_journal)[0].timeMs, 2);
    EXPECT_EQ(EntriesOf(_journal)[0].process, 99);
}

TEST_F(JournalTest, AnotherOperationOrOutcomeIsNoRepetition)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"x"}}}, ChangeOutcome::Done, operation::MergeWithoutPersisting);
    Enter(_journal, _kim, {{"A", {"x"}}}, ChangeOutcome::Failed);
    Enter(_journal, _kim, {{"A", {"x"}}}, ChangeOutcome::Refused);
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*1 [A]x", "2*1 [A]x", "3*1 [A]x", "4*1 [A]x"));
}

TEST_F(JournalTest, OtherKeysAreNoRepetition)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"x", "y"}}});
    Enter(_journal, _kim, {{"A", {}}});
    Enter(_journal, _kim, {{"A", {"x"}}, {"B", {}}});
    EXPECT_THAT(_journal, testing::ResultOf([](const Journal& journal) { return EntriesOf(journal); }, SizeIs(4)));
}

TEST_F(JournalTest, SomebodyElseOnTheSameKeyEndsTheEntry)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _web, {{"A", {"x", "y"}}});
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*1 [A]x", "2*1 [A]x [A]y", "3*2 [A]x"));
}

TEST_F(JournalTest, SomebodyElseOnOtherKeysDoesNot)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _web, {{"A", {"y"}}, {"B", {"x"}}});
    Enter(_journal, _kim, {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*2 [A]x", "2*1 [A]y [B]x"));
}

TEST_F(JournalTest, AGroupThatCameOrWentIsAboutAllItsKeys)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _web, {{"A", {}}});
    Enter(_journal, _kim, {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*1 [A]x", "2*1 [A]", "3*1 [A]x"));
}

TEST_F(JournalTest, OnesOwnOtherChangesDoNotEndAnEntry)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"x"}}}, ChangeOutcome::Done, operation::Restore);
    Enter(_journal, _kim, {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*2 [A]x", "2*1 [A]x"));
}

TEST_F(JournalTest, ARefusalOfSomebodyElseDoesNotEndAnEntry)
{
    for (int i = 0; i < 100; ++i)
    {
        Enter(_journal, _kim, {{"A", {"x"}}});
        Enter(_journal, _web, {{"A", {"x"}}}, ChangeOutcome::Refused);
    }
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*100 [A]x", "2*100 [A]x"));
}

TEST_F(JournalTest, UserAndProgramMakeOneAuthorWhicheverTheConnection)
{
    Enter(_journal, UserClient(1000, "tool", 1), {{"A", {"x"}}});
    Enter(_journal, UserClient(1000, "tool", 2), {{"A", {"x"}}});
    Enter(_journal, UserClient(1000, "other", 3), {{"A", {"x"}}});
    Enter(_journal, UserClient(1001, "other", 3), {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*2 [A]x", "2*1 [A]x", "3*1 [A]x"));
}

TEST_F(JournalTest, WithoutAUserTheConnectionIsTheAuthor)
{
    ClientOrigin unknown = _kim;
    unknown.user.reset();
    ClientOrigin sameProgram = unknown;
    sameProgram.connection = 77;
    for (const ClientOrigin& origin : {TcpClient(1), TcpClient(1), TcpClient(2), unknown, unknown, sameProgram})
    {
        Enter(_journal, origin, {{"A", {"x"}}});
    }
    EXPECT_THAT(TextsOf(_journal), ElementsAre("1*2 [A]x", "2*1 [A]x", "3*2 [A]x", "4*1 [A]x"));
}

TEST_F(JournalTest, ABusyCounterLeavesAPersonsSingleChange)
{
    // 100,000 with KORLO_LONG_TESTS set; more than the journal holds in any case.
    const int changes = std::getenv("KORLO_LONG_TESTS") != nullptr ? 100'000 : 2'000;
    Enter(_journal, _kim, {{"Audio", {"volume"}}});
    for (int i = 0; i < changes; ++i)
    {
        Enter(_journal, _web, {{"Counters", {"value"}}});
    }
    EXPECT_THAT(TextsOf(_journal),
                ElementsAre("1*1 [Audio]volume", "2*" + std::to_string(changes) + " [Counters]value"));
}

TEST_F(JournalTest, DropsTheOldestEntriesAndKeepsTheirNumbers)
{
    Journal journal(3);
    for (int i = 1; i <= 10; ++i)
    {
        Enter(journal, _kim, {{"A", {std::to_string(i)}}});
    }
    EXPECT_THAT(TextsOf(journal), ElementsAre("8*1 [A]8", "9*1 [A]9", "10*1 [A]10"));
}

TEST_F(JournalTest, RefusalsTakeAtMostAQuarter)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    for (int i = 0; i < 1000; ++i)
    {
        Enter(_journal, _web, {{"B", {std::to_string(i)}}}, ChangeOutcome::Refused);
    }
    const std::vector<std::string> texts = TextsOf(_journal);
    EXPECT_EQ(texts.front(), "1*1 [A]x");
    EXPECT_THAT(texts, SizeIs(1 + Journal::UsualEntries / 4));
    EXPECT_EQ(texts.back(), "1001*1 [B]999");
}

TEST_F(JournalTest, RefusalsTakeAtMostAQuarterOfTheBytes)
{
    for (int i = 0; i < 150; ++i)
    {
        Enter(_journal, _kim, {{"A", {std::to_string(i)}}});
    }
    const std::size_t before = _journal.GetBytes();
    for (int i = 0; i < 300; ++i)
    {
        Enter(_journal, _web, {{std::string(1000, 'g'), {std::to_string(i)}}}, ChangeOutcome::Refused);
    }
    EXPECT_LE(_journal.GetBytes() - before, Journal::UsualBytes / 4);
    EXPECT_EQ(TextsOf(_journal).front(), "1*1 [A]0");
}

TEST_F(JournalTest, AJournalOfLessThanFourEntriesHasNoRoomForARefusal)
{
    Journal journal(3);
    Enter(journal, _kim, {{"A", {"x"}}}, ChangeOutcome::Refused);
    Enter(journal, _kim, {{"A", {"x"}}});
    EXPECT_THAT(TextsOf(journal), ElementsAre("1*1 [A]x"));
}

TEST_F(JournalTest, StaysWithinItsBytesWhateverClientsSend)
{
    const std::string million(1'000'000, 'x');
    std::mt19937 random(1);
    ClientOrigin origin = UserClient(1, million, 1);
    origin.peer = million;
    for (int i = 0; i < 300; ++i)
    {
        Keys keys;
        for (unsigned int groups = static_cast<unsigned int>(random() % 30); groups > 0; --groups)
        {
            keys.push_back({std::to_string(random()), {"a", std::string(random() % 300, 'k')}});
        }
        std::sort(keys.begin(), keys.end());
        if (i % 50 == 0)
        {
            keys.push_back({"zz" + million, {million}});
            keys.push_back({"zzz", {million, "y" + million}});
        }
        origin.user = i % 3;
        Enter(_journal, origin, keys, i % 5 == 0 ? ChangeOutcome::Refused : ChangeOutcome::Done);
        ASSERT_LE(_journal.GetBytes(), Journal::UsualBytes);
    }
    EXPECT_THAT(EntriesOf(_journal), testing::Not(IsEmpty()));
}

TEST_F(JournalTest, HoldsAsManyUsualEntriesAsItPromises)
{
    for (int i = 0; i < 1000; ++i)
    {
        Enter(_journal, _kim, {{"Network/Wifi" + std::to_string(100 + i % 100), {"enabled" + std::to_string(i)}}});
    }
    EXPECT_THAT(EntriesOf(_journal), SizeIs(Journal::UsualEntries));
}

/// More keys than are listed, all in one group.
Keys ManyKeys(const std::string& group)
{
    Keys keys = {{group, {}}};
    for (int i = 100; i < 400; ++i)
    {
        keys[0].second.push_back(std::to_string(i));
    }
    return keys;
}

TEST_F(JournalTest, ALargeChangeIsRepeatedLikeAnyOther)
{
    for (int i = 0; i < 10; ++i)
    {
        Enter(_journal, _kim, ManyKeys("A"));
        Enter(_journal, _web, {{"B", {"x"}}});
    }
    const std::vector<JournalEntry> entries = EntriesOf(_journal);
    ASSERT_THAT(entries, SizeIs(2));
    EXPECT_EQ(entries[0].count, 10u);
    EXPECT_GT(entries[0].more, 0u);
    Keys others = ManyKeys("A");
    others[0].second.back() = "other";  // beyond what is listed
    Enter(_journal, _kim, others);
    EXPECT_THAT(EntriesOf(_journal), SizeIs(3));
}

TEST_F(JournalTest, WhereNamesAreLeftOutASharedGroupCounts)
{
    Enter(_journal, _kim, ManyKeys("A"));
    Enter(_journal, _web, {{"A", {"not among them"}}});
    Enter(_journal, _kim, ManyKeys("A"));
    EXPECT_THAT(EntriesOf(_journal), SizeIs(3));
}

TEST_F(JournalTest, AReaderGetsWhatCameSinceItsLastVisit)
{
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"y"}}});
    const std::uint64_t revision = _journal.GetRevision();
    Enter(_journal, _kim, {{"A", {"z"}}});
    Enter(_journal, _kim, {{"A", {"x"}}});
    std::vector<JournalEntry> entries;
    Journal::Walk walk{0, revision, _journal.GetLastNumber()};
    EXPECT_FALSE(_journal.Read(walk, entries));
    ASSERT_THAT(entries, SizeIs(2));
    EXPECT_EQ(TextOf(entries[0]), "1*2 [A]x");
    EXPECT_EQ(TextOf(entries[1]), "3*1 [A]z");
}

TEST_F(JournalTest, AReaderCopiesAFewEntriesAtATime)
{
    for (int i = 0; i < 200; ++i)
    {
        Enter(_journal, _kim, {{"A", {std::to_string(i)}}});
    }
    std::vector<JournalEntry> entries;
    Journal::Walk walk{0, 0, _journal.GetLastNumber()};
    while (true)
    {
        const std::size_t before = entries.size();
        const bool hasMore = _journal.Read(walk, entries);
        EXPECT_LE(entries.size() - before, 8u);
        if (!hasMore)
        {
            break;
        }
    }
    EXPECT_THAT(entries, SizeIs(200));
}

/// Counts its calls.
struct CountingListener : IJournalListener
{
    void OnEntry() override { ++calls; }

    std::atomic<int> calls = 0;
};

TEST_F(JournalTest, AListenerIsCalledOnceWithTheNextEntry)
{
    CountingListener listener;
    _journal.Arm(listener, _journal.GetRevision());
    EXPECT_EQ(listener.calls, 0);
    Enter(_journal, _kim, {{"A", {"x"}}});
    Enter(_journal, _kim, {{"A", {"y"}}});
    EXPECT_EQ(listener.calls, 1);
    _journal.Arm(listener, 0);
    EXPECT_EQ(listener.calls, 2) << "there was an entry already";
    _journal.Arm(listener, _journal.GetRevision());
    _journal.Disarm(listener);
    Enter(_journal, _kim, {{"A", {"x"}}});
    EXPECT_EQ(listener.calls, 2);
}

TEST_F(JournalTest, NumbersHaveNoGapsUnderWritersAndReadersAtOnce)
{
    constexpr int writers = 3;
    constexpr int changesEach = 60;
    std::atomic<bool> isOver = false;
    std::thread reader([&] {
        while (!isOver)
        {
            std::uint64_t last = 0;
            for (const JournalEntry& entry : EntriesOf(_journal))
            {
                EXPECT_GT(entry.number, last);
                last = entry.number;
            }
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer)
    {
        threads.emplace_back([&, writer] {
            const ClientOrigin origin = TcpClient(writer);
            CountingListener listener;
            for (int i = 0; i < changesEach; ++i)
            {
                Enter(_journal, origin, {{"A", {std::to_string(writer) + '/' + std::to_string(i)}}});
                _journal.Arm(listener, _journal.GetRevision());
                Enter(_journal, origin, {{"Counter", {std::to_string(writer)}}});
                _journal.Disarm(listener);
            }
            EXPECT_GE(listener.calls, changesEach);
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    isOver = true;
    reader.join();
    const std::vector<JournalEntry> entries = EntriesOf(_journal);
    ASSERT_THAT(entries, SizeIs(writers * (changesEach + 1)));
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        EXPECT_EQ(entries[i].number, i + 1);
    }
}

/// The rules of the journal as one would first write them down, for names that are all listed.
///
/// Thread safety: none of its own; the owner guards it.
class JournalModel
{
public:
    explicit JournalModel(std::size_t mostEntries) : _mostEntries(mostEntries) {}

    void Enter(int author, const std::set<std::string>& keys, ChangeOutcome outcome, const std::string& what)
    {
        const bool isRefusal = outcome == ChangeOutcome::Refused;
        for (auto entry = _entries.rbegin(); entry != _entries.rend(); ++entry)
        {
            const bool isAlike =
                entry->author == author && entry->keys == keys && entry->outcome == outcome && entry->what == what;
            if (isAlike && IsAlone(*entry))
            {
                ++entry->count;
                return;
            }
            if (isAlike)
            {
                break;
            }
        }
        if (isRefusal && CountRefusals() == _mostEntries / 4)
        {
            _entries.erase(std::find_if(_entries.begin(), _entries.end(),
                                        [](const Entry& entry) { return entry.outcome == ChangeOutcome::Refused; }));
        }
        if (_entries.size() == _mostEntries)
        {
            _entries.erase(_entries.begin());
        }
        _entries.push_back({++_lastNumber, 1, author, keys, outcome, what});
    }

    std::vector<std::string> GetTexts() const
    {
        std::vector<std::string> texts;
        for (const Entry& entry : _entries)
        {
            texts.push_back(std::to_string(entry.number) + '*' + std::to_string(entry.count));
            for (const std::string& key : entry.keys)
            {
                texts.back() += " [G]" + key;
            }
        }
        return texts;
    }

private:
    struct Entry
    {
        int number;
        int count;
        int author;
        std::set<std::string> keys;
        ChangeOutcome outcome;
        std::string what;
    };

    bool IsAlone(const Entry& entry) const
    {
        return std::none_of(_entries.begin(), _entries.end(), [&entry](const Entry& other) {
            return other.number > entry.number && other.author != entry.author &&
                   (other.outcome == ChangeOutcome::Refused) == (entry.outcome == ChangeOutcome::Refused) &&
                   std::any_of(other.keys.begin(), other.keys.end(),
                               [&entry](const std::string& key) { return entry.keys.contains(key); });
        });
    }

    std::size_t CountRefusals() const
    {
        return static_cast<std::size_t>(std::count_if(_entries.begin(), _entries.end(), [](const Entry& entry) {
            return entry.outcome == ChangeOutcome::Refused;
        }));
    }

    const std::size_t _mostEntries;
    int _lastNumber = 0;
    std::vector<Entry> _entries;
};

TEST_F(JournalTest, FollowsItsRulesOverRandomChanges)
{
    const std::vector<ClientOrigin> authors = {_kim, _web, TcpClient(1), TcpClient(2)};
    for (unsigned int seed = 1; seed <= 40; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const std::size_t most = seed % 2 == 0 ? 8 : 200;
        Journal journal(most);
        JournalModel model(most);
        for (int step = 0; step < 100; ++step)
        {
            const auto author = static_cast<std::size_t>(random() % authors.size());
            std::set<std::string> keys = {std::string(1, static_cast<char>('a' + random() % 4))};
            if (random() % 3 == 0)
            {
                keys.insert(std::string(1, static_cast<char>('a' + random() % 4)));
            }
            const ChangeOutcome outcome = random() % 4 == 0 ? ChangeOutcome::Refused : ChangeOutcome::Done;
            const char* const what = random() % 4 == 0 ? operation::Restore : operation::Merge;
            Enter(journal, authors[author], {{"G", {keys.begin(), keys.end()}}}, outcome, what);
            model.Enter(static_cast<int>(author), keys, outcome, what);
            ASSERT_EQ(TextsOf(journal), model.GetTexts());
        }
    }
}

}  // namespace
}  // namespace korlo::daemon

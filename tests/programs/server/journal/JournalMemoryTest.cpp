// What the journal takes of the heap. A program that counts: see support/Heap.h.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "journal/Journal.h"
#include "support/FailEachAllocation.h"
#include "support/Heap.h"
#include "support/JournalClients.h"

namespace korlo::daemon
{
namespace
{

TEST(JournalMemoryTest, TakesNoMoreThanItSays)
{
    for (const std::size_t keyBytes : {std::size_t(8), std::size_t(900)})
    {
        const long long before = heap.usableBytes;
        const auto pJournal = std::make_unique<Journal>(Journal::UsualEntries);
        for (int i = 0; i < 600; ++i)
        {
            const std::string key = std::string(keyBytes, 'k') + std::to_string(i);
            Enter(*pJournal, UserClient(1000, "tool"), {{"Group", {key}}});
        }
        EXPECT_LE(heap.usableBytes - before, static_cast<long long>(pJournal->GetBytes()));
        EXPECT_LE(pJournal->GetBytes(), Journal::UsualBytes);
    }
}

TEST(JournalMemoryTest, AChangeThatMemoryDoesNotSufficeForTakesNoNumber)
{
    Journal journal(4);
    const ClientOrigin origin = UserClient(1000, "tool");
    Enter(journal, origin, {{"A", {"first"}}});
    const settings::server::ChangedNames names = NamesOf({{"A", {"second"}}});
    FailEachAllocation(
        [&] {
            const std::uint64_t revision = journal.GetRevision();
            journal.OnChange(&origin, settings::server::operation::Merge, settings::server::ChangeOutcome::Done, names);
            if (journal.GetRevision() == revision)
            {
                throw std::bad_alloc();
            }
        },
        [&](bool isDone, long long) { EXPECT_EQ(TextsOf(journal).size(), isDone ? 2u : 1u); });
    EXPECT_EQ(TextsOf(journal).back(), "2*1 [A]second");
}

}  // namespace
}  // namespace korlo::daemon

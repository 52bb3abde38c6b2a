// What a resource manager believes after memory ran out in the middle of an operation.

#include <functional>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "settings/KorloSettingsClient.h"
#include "settings/ResourceManager.h"
#include "support/Documents.h"
#include "support/FailEachAllocation.h"

namespace korlo::settings
{
namespace
{

/// Names that are too long to lie within the string itself, so that everything that is read is allocated.
constexpr const char* Resource = "bandwidth of the uplink of this device";
constexpr const char* Holder = "the consumer that may use the uplink";
constexpr const char* Stranger = "a consumer that may not use any of it";

std::string Settings(int total, int used)
{
    const std::string group = std::string("Resources/") + Resource;
    return '[' + group + "]\nTotalAvailable=" + std::to_string(total) + "\n[" + group +
           "/AllowedConsumers]\n1=" + Holder + "\n[" + group + "/Consumers/" + Holder +
           "]\nCurrentlyUsed=" + std::to_string(used) + '\n';
}

/// A store of its own, and a manager over it.
struct Budget
{
    void Change(int total, int used) { client.MergeSettings(Ini(Settings(total, used))); }

    int HeldInStore() const
    {
        core::IniFile settings;
        client.GetSettings("*", settings);
        return settings.GetIntOrDefault(std::string("Resources/") + Resource + "/Consumers/" + Holder, "CurrentlyUsed",
                                        0);
    }

    KorloSettingsClient client{KorloSettingsClient::Local, Ini(Settings(50, 10))};
    ResourceManager manager{&client};
};

/// Runs `operation` over new budgets, failing each of its allocations in turn, and lets `check` look at what a failure
/// has left.
void FailEach(const std::function<void(Budget&)>& prepare, const std::function<void(Budget&)>& operation,
              const std::function<void(Budget&)>& check)
{
    std::optional<Budget> budget;
    const auto renew = [&] { prepare(budget.emplace()); };
    renew();
    FailEachAllocation([&] { operation(*budget); },
                       [&](bool isDone, long long) {
                           if (!isDone)
                           {
                               check(*budget);
                           }
                           renew();
                       });
}

TEST(ResourceManagerMemoryTest, ARefreshThatRunsOutOfMemoryChangesNoFigure)
{
    FailEach(
        [](Budget& budget) {
            EXPECT_EQ(budget.manager.GetTotal(Resource), 50);
            budget.Change(60, 20);
        },
        [](Budget& budget) { budget.manager.Refresh(); },
        [](Budget& budget) {
            EXPECT_EQ(budget.manager.GetTotal(Resource), 50);
            EXPECT_EQ(budget.manager.GetUsed(Holder, Resource), 10);
            EXPECT_FALSE(budget.manager.IsAuthorized(Stranger, Resource));
        });
}

TEST(ResourceManagerMemoryTest, AFirstReadThatRunsOutOfMemoryCountsWholeOrNotAtAll)
{
    FailEach([](Budget&) {}, [](Budget& budget) { budget.manager.GetTotal(Resource); },
             [](Budget& budget) {
                 budget.Change(60, 20);
                 const int total = budget.manager.GetTotal(Resource);
                 EXPECT_TRUE(total == 50 || total == 60) << total;
                 EXPECT_EQ(budget.manager.GetUsed(Holder, Resource), total - 40) << "of the same reading";
                 EXPECT_FALSE(budget.manager.IsAuthorized(Stranger, Resource));
             });
}

TEST(ResourceManagerMemoryTest, AReservationThatRunsOutOfMemoryLeavesNoFalseFigures)
{
    FailEach(
        [](Budget& budget) {
            EXPECT_EQ(budget.manager.GetTotal(Resource), 50);
            budget.Change(60, 20);  // so that the first attempt fails, and the figures are read again
        },
        [](Budget& budget) { EXPECT_TRUE(budget.manager.ReserveResource(Holder, Resource, 30)); },
        [](Budget& budget) {
            const int total = budget.manager.GetTotal(Resource);
            EXPECT_TRUE(total == 50 || total == 60) << total;
            EXPECT_FALSE(budget.manager.IsAuthorized(Stranger, Resource));
            EXPECT_FALSE(budget.manager.ReserveResource(Stranger, Resource, 1));
            EXPECT_FALSE(budget.manager.ReserveResource(Holder, Resource, 61));
            const int held = budget.HeldInStore();
            EXPECT_TRUE(held == 20 || held == 30) << held;
            budget.manager.Refresh();
            EXPECT_TRUE(budget.manager.ReserveResource(Holder, Resource, 60));
            EXPECT_EQ(budget.manager.GetUsed(Holder, Resource), 60);
            EXPECT_EQ(budget.HeldInStore(), 60);
        });
}

}  // namespace
}  // namespace korlo::settings

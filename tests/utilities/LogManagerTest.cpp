#include "settings/LogManager.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "korlo/core/Logger.h"
#include "support/DescriptorCapture.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/ScriptedServer.h"
#include "support/StoreClients.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;
using core::Logger;
using Mode = KorloSettingsClient::OperationMode;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr const char* WrittenDefaults = "[Log]\nlog.level=1\nlog.stdout=false\nlog.syslog=true\nusing_defs=false\n";
constexpr const char* Reconfiguring = "Information LogManager: Reconfiguring logging";
constexpr const char* Reconfigured = "Information LogManager: Finished reconfiguring logging";
constexpr const char* SubscriptionFailure =
    "Error LogManager: Failed to subscribe to log settings - probably created KorloSettingsClient in SingleThreaded "
    "mode instead of MultiThreaded";

/// The lines of a log file without the time and the process.
std::vector<std::string> MessagesIn(const std::string& path)
{
    std::ifstream stream(path);
    std::vector<std::string> messages;
    for (std::string line; std::getline(stream, line);)
    {
        const std::size_t end = line.find("] ");
        messages.push_back(end == std::string::npos ? "torn: " + line : line.substr(end + 2));
    }
    return messages;
}

/// Log files and stanzas of a test, and logging as it was before it.
struct LogFolder
{
    LogFolder() { Logger::SetLogRotateFolder(folder.GetPath()); }
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;
    ~LogFolder() { Logger::SetLogRotateFolder("/etc/logrotate.d"); }

    std::string GroupText(int level, const std::string& file) const
    {
        return "[Log]\nlog.level=" + std::to_string(level) + "\nlog.file=" + folder.PathOf(file) + '\n';
    }

    TemporaryFolder folder;
    LogCapture reset;
};

class LogManagerTest : public testing::TestWithParam<Mode>
{
protected:
    /// Returns when what the manager wrote is in the store.
    void Start()
    {
        manager.emplace(&store.Client(), "Log");
        store.Settle();
    }

    /// Starts at this level, with this file.
    void Start(int level, const std::string& file)
    {
        store.Change(logs.GroupText(level, file));
        Start();
    }

    void Change(const std::string& settings)
    {
        store.Change(settings);
        store.Settle();
    }

    std::vector<std::string> Messages(const std::string& file) { return MessagesIn(logs.folder.PathOf(file)); }

    /// The messages of the file that begin so.
    std::ptrdiff_t Count(const std::string& file, const std::string& beginning)
    {
        const std::vector<std::string> messages = Messages(file);
        return std::count_if(messages.begin(), messages.end(),
                             [&](const std::string& message) { return message.starts_with(beginning); });
    }

    static void AwaitMore(const std::atomic<int>& count, int more)
    {
        for (const int enough = count + more; count < enough;)
        {
            std::this_thread::yield();
        }
    }

    LogFolder logs;
    StoreClients store{GetParam()};
    std::optional<LogManager> manager;
    Logger& logger = *Logger::GetLogger("Application");
};

TEST_P(LogManagerTest, AGroupWithoutALevelGetsTheDefaults)
{
    Start();
    EXPECT_EQ(store.Read("Log"), WrittenDefaults);
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelError) << "and they hold at once";
}

TEST_P(LogManagerTest, DefaultsLeaveTheOtherKeysOfTheGroup)
{
    store.Change("[Log]\nlog.stdout=true\nlog.syslog=false\nmine=1\n[Other]\nx=1\n");
    Start();
    EXPECT_EQ(store.Read("Log"), "[Log]\nlog.level=1\nlog.stdout=false\nlog.syslog=true\nmine=1\nusing_defs=false\n");
    EXPECT_EQ(store.Read("Other"), "[Other]\nx=1\n");
}

TEST_P(LogManagerTest, DefaultsAreWrittenOnce)
{
    RecordingCallback changes;
    store.Client().Subscribe(&changes, "Log");
    Start();
    EXPECT_THAT(changes.GetGroups(), ElementsAre(GroupNameCollection{"Log"}));
    EXPECT_EQ(store.Read("Log"), WrittenDefaults);
    {
        // The first one goes on living: with a local client it has to.
        const LogManager second(&store.Client(), "Log");
        store.Settle();
    }
    EXPECT_THAT(changes.GetGroups(), ElementsAre(GroupNameCollection{"Log"}));
    store.Client().UnSubscribe(&changes);
}

TEST_P(LogManagerTest, AGroupWithALevelIsNotWritten)
{
    RecordingCallback changes;
    store.Change("[Log]\nlog.level=3\n");
    store.Client().Subscribe(&changes, "Log");
    Start();
    EXPECT_THAT(changes.GetGroups(), testing::IsEmpty());
    EXPECT_EQ(store.Read("Log"), "[Log]\nlog.level=3\n");
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelInformation);
    store.Client().UnSubscribe(&changes);
}

TEST_P(LogManagerTest, ReconfigurationIsAnnouncedInTheOldLogAndFinishedInTheNew)
{
    Logger::GetLogger("LogManager")->SetThreshold(core::LogLevelInformation);
    Start(3, "first.log");
    EXPECT_THAT(logs.reset.GetMessages(), Contains("6 LogManager: Reconfiguring logging"));
    EXPECT_THAT(logs.reset.GetMessages(), Not(Contains("6 LogManager: Finished reconfiguring logging")));
    EXPECT_THAT(Messages("first.log"), Contains(Reconfigured));
    EXPECT_THAT(Messages("first.log"), Not(Contains(Reconfiguring)));

    Change(logs.GroupText(3, "second.log"));

    EXPECT_THAT(Messages("first.log"), Contains(Reconfiguring));
    EXPECT_THAT(Messages("second.log"), Contains(Reconfigured));
    EXPECT_THAT(Messages("second.log"), Not(Contains(Reconfiguring)));
}

TEST_P(LogManagerTest, AChangeThroughAnotherClientMovesTheLogAndItsLevel)
{
    Start(2, "first.log");
    logger.Warning("early warning");
    logger.Information("early information");

    Change(logs.GroupText(3, "second.log"));
    logger.Information("late information");
    logger.Trace("late trace");

    EXPECT_THAT(Messages("first.log"), Contains("Warning Application: early warning"));
    EXPECT_THAT(Messages("first.log"), Not(Contains("Information Application: late information")));
    EXPECT_THAT(Messages("second.log"), Contains("Information Application: late information"));
    for (const std::string& message : Messages("first.log"))
    {
        EXPECT_THAT(message, Not(HasSubstr("early information")));
    }
    for (const std::string& message : Messages("second.log"))
    {
        EXPECT_THAT(message, Not(HasSubstr("late trace")));
    }
}

TEST_P(LogManagerTest, AChangeOfTheLevelAloneKeepsTheFile)
{
    Start(1, "app.log");
    logger.Information("early");
    Change("[Log]\nlog.level=3\n");
    logger.Information("late");
    EXPECT_THAT(Messages("app.log"), Contains("Information Application: late"));
    EXPECT_THAT(Messages("app.log"), Not(Contains("Information Application: early")));
}

TEST_P(LogManagerTest, AFileGetsAStanzaOfItsGroup)
{
    Start(2, "first.log");
    const std::string stanza = logs.folder.PathOf("korlo-Log");
    EXPECT_THAT(ContentOf(stanza).value_or(""), HasSubstr(logs.folder.PathOf("first.log")));
    Change(logs.GroupText(2, "second.log"));
    EXPECT_THAT(ContentOf(stanza).value_or(""), HasSubstr(logs.folder.PathOf("second.log")));
}

TEST_P(LogManagerTest, AGroupWithoutAFileGetsNoStanza)
{
    store.Change("[Log]\nlog.level=2\n");
    Start();
    Change("[Log]\nlog.level=3\n");
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelInformation);
    EXPECT_TRUE(NamesIn(logs.folder.GetPath()).empty());
}

TEST_P(LogManagerTest, AnErasedGroupMeansTheDefaultsOfTheLoggerAndIsNotWritten)
{
    Start(4, "app.log");
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelTrace);
    store.Erase("Log");
    store.Settle();
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelWarning);
    EXPECT_EQ(store.Read("Log"), "");
}

TEST_P(LogManagerTest, AGroupThatHoldsOnlyALevelLogsToStandardError)
{
    store.Change("[Log]\nlog.level=2\n");
    DescriptorCapture error(STDERR_FILENO);
    Start();
    logger.Warning("heard");
    EXPECT_THAT(error.GetWrites(), Contains(EndsWith("] Warning Application: heard\n")));
    EXPECT_EQ(store.Read("Log"), "[Log]\nlog.level=2\n");
}

TEST_P(LogManagerTest, AnErasedGroupLeavesWarningsOnStandardError)
{
    Start(1, "app.log");
    DescriptorCapture error(STDERR_FILENO);
    store.Erase("Log");
    store.Settle();
    logger.Warning("heard");
    EXPECT_THAT(error.GetWrites(), Contains(EndsWith("] Warning Application: heard\n")));
    EXPECT_THAT(Messages("app.log"), Not(Contains("Warning Application: heard")));
}

TEST_P(LogManagerTest, ChangesOfOtherGroupsDoNotReconfigure)
{
    Start(3, "app.log");
    Change("[Other]\nlog.level=4\n");
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelInformation);
    EXPECT_THAT(Messages("app.log"), Not(Contains(Reconfiguring)));
}

TEST_P(LogManagerTest, WhileOtherThreadsLogNoLineIsTornOrWrittenTwice)
{
    constexpr int threadCount = 3;
    Start(1, "0.log");
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
    {
        threads.emplace_back([&stop, thread, this] {
            for (int count = 0; !stop; ++count)
            {
                logger.Error("%d %d end", thread, count);
                std::this_thread::yield();  // to the thread that delivers the change
            }
        });
    }
    for (int change = 1; change <= 10; ++change)
    {
        Change(logs.GroupText(1, std::to_string(change % 3) + ".log"));
    }
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    logger.Error("last");
    EXPECT_EQ(Messages("1.log").back(), "Error Application: last") << "ten changes end with this file";

    const testing::Matcher<std::string> isWhole = testing::MatchesRegex("Error Application: ([0-9]+ [0-9]+ end|last)");
    std::set<std::string> seen;
    for (const char* file : {"0.log", "1.log", "2.log"})
    {
        for (const std::string& message : Messages(file))
        {
            EXPECT_THAT(message, isWhole);
            EXPECT_TRUE(seen.insert(message).second) << message;
        }
    }
}

TEST_P(LogManagerTest, TheNewFileHasTheNewLevelWhileOtherThreadsLog)
{
    constexpr int threadCount = 3;
    Start(1, "quiet.log");
    std::atomic<bool> stop = false;
    std::atomic<int> rounds = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread)
    {
        threads.emplace_back([&stop, &rounds, thread, this] {
            for (int count = 0; !stop; ++count)
            {
                logger.Error("%d %d failed", thread, count);
                logger.Information("%d %d done", thread, count);
                ++rounds;
                std::this_thread::yield();  // to the thread that delivers the change
            }
        });
    }
    AwaitMore(rounds, 100);
    Change(logs.GroupText(3, "talkative.log"));
    AwaitMore(rounds, 100);
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    EXPECT_GT(Count("quiet.log", "Error Application: "), 0);
    EXPECT_EQ(Count("quiet.log", "Information Application: "), 0);
    EXPECT_GT(Count("talkative.log", "Error Application: "), 0);
    EXPECT_GT(Count("talkative.log", "Information Application: "), 0);
    std::vector<std::string> all = Messages("quiet.log");
    const std::vector<std::string> late = Messages("talkative.log");
    all.insert(all.end(), late.begin(), late.end());
    const testing::Matcher<std::string> isWhole =
        testing::MatchesRegex("(Error Application: [0-9]+ [0-9]+ failed|Information Application: [0-9]+ [0-9]+ done|"
                              "Information LogManager: Finished reconfiguring logging)");
    EXPECT_THAT(all, testing::Each(isWhole));
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size()) << "a line was written twice";
}

INSTANTIATE_TEST_SUITE_P(Modes, LogManagerTest,
                         testing::Values(Mode::Local, Mode::LocalMultiThreaded, Mode::MultiThreaded), NameOfMode);

/// A local client goes on calling a log manager that was destroyed, so these are for the others.
class LogManagerEndTest : public LogManagerTest
{
};

TEST_P(LogManagerEndTest, ADestroyedLogManagerHearsNothingAndLeavesTheLogging)
{
    Start(1, "app.log");
    manager.reset();
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelError);
    Change("[Log]\nlog.level=4\n");
    EXPECT_EQ(logger.GetThreshold(), core::LogLevelError);
    logger.Error("still there");
    EXPECT_THAT(Messages("app.log"), Contains("Error Application: still there"));
}

TEST_P(LogManagerEndTest, ALogManagerMayBeDestroyedWhileNotificationsArrive)
{
    store.Change("[Log]\nlog.level=0\n");
    std::atomic<bool> stop = false;
    std::thread changer([&] {
        for (int count = 0; !stop; ++count)
        {
            store.Client().SetValue("[Log]count", std::to_string(count));
            store.Client().GetValue("[Log]count");  // keeps pace with the server
        }
    });
    for (int round = 0; round < 30; ++round)
    {
        const LogManager shortLived(&store.Client(), "Log");
        if (round % 2 == 0)
        {
            store.Client().GetValue("[Log]count");
            std::this_thread::yield();
        }
    }
    stop = true;
    changer.join();
    EXPECT_EQ(logger.GetThreshold(), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, LogManagerEndTest, testing::Values(Mode::LocalMultiThreaded, Mode::MultiThreaded),
                         NameOfMode);

class LogManagerRefusalTest : public testing::TestWithParam<Mode>
{
protected:
    LogFolder logs;
    StoreClients store{GetParam()};
    Logger& logger = *Logger::GetLogger("Application");
};

TEST_P(LogManagerRefusalTest, ASingleThreadedClientCostsAnErrorInTheNewLogAndTheChanges)
{
    store.Change(logs.GroupText(1, "app.log"));
    {
        const LogManager manager(&store.Client(), "Log");
        EXPECT_THAT(MessagesIn(logs.folder.PathOf("app.log")), ElementsAre(SubscriptionFailure));
        store.Change("[Log]\nlog.level=4\n");
        EXPECT_EQ(store.Client().GetValue("[Log]log.level"), "4");
        EXPECT_EQ(logger.GetThreshold(), core::LogLevelError) << "it never hears of the change";
    }
    logger.Error("goes on");
    EXPECT_THAT(MessagesIn(logs.folder.PathOf("app.log")),
                ElementsAre(SubscriptionFailure, "Error Application: goes on"));
}

INSTANTIATE_TEST_SUITE_P(Modes, LogManagerRefusalTest, testing::Values(Mode::SingleThreaded, Mode::LocalSingleThreaded),
                         NameOfMode);

TEST(LogManagerConstructionTest, ANullClientIsRefusedBeforeANullGroup)
{
    KorloSettingsClient client(Mode::Local);
    EXPECT_EQ(MessageOf([] { LogManager manager(nullptr, nullptr); }), "client was NULL");
    EXPECT_EQ(MessageOf([&client] { LogManager manager(&client, nullptr); }), "group was NULL");
}

TEST(LogManagerConstructionTest, TheGroupIsCopied)
{
    const LogFolder logs;
    StoreClients store(Mode::Local, "[Log]\nlog.level=1\n");
    std::string group = "Log";
    const LogManager manager(&store.Client(), group.c_str());
    group = "Xxx";
    store.Change("[Log]\nlog.level=3\n");
    EXPECT_EQ(Logger::GetLogger("Application")->GetThreshold(), core::LogLevelInformation);
}

TEST(LogManagerConstructionTest, AReadThatFailsPassesOut)
{
    const LogFolder logs;
    StoreClients store(Mode::LocalMultiThreaded);
    EXPECT_EQ(MessageOf([&store] { LogManager manager(&store.Client(), "Log\n"); }),
              "Group name 'Log\n' cannot be sent: it is a full stop or holds a line break");
    EXPECT_EQ(logs.reset.GetMessages(), std::vector<std::string>()) << "logging was not touched";
}

TEST(LogManagerWireTest, AGroupWithALevelCostsAReadAndASubscription)
{
    const LogFolder logs;
    ScriptedServer server;
    auto heard = std::async(std::launch::async, [&server] {
        const auto pPeer = server.Accept();
        std::string requests = pPeer->Read(3);
        pPeer->Send("data\n[Log]\nlog.level=2\n.\n");
        return requests + pPeer->Read(4);
    });
    {
        KorloSettingsClient client(Mode::MultiThreaded);
        const LogManager manager(&client, "Log");
    }
    EXPECT_EQ(heard.get(), "get delimited\nLog\n.\nsubscribe\nLog\n.\nquit\n");
}

}  // namespace
}  // namespace korlo::settings

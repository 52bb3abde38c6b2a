#include "client/RemoteCommands.h"

#include <functional>
#include <memory>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/PiecewiseStream.h"
#include "support/ProtocolExchanges.h"

namespace korlo::settings::client
{
namespace
{

using core::IniFile;

std::string RequestOf(RemoteCommand& command)
{
    std::ostringstream out;
    command.SendRequest(out);
    return out.str();
}

/// What the test below hands to a command.
struct Arguments
{
    GroupNameCollection groups;
    IniFile first;
    IniFile second;
    IniFile result;
};

struct CommandRow
{
    const char* exchange;
    Arguments arguments;
    std::function<std::unique_ptr<RemoteCommand>(Arguments&)> create;
};

std::unique_ptr<RemoteCommand> Get(Arguments& arguments)
{
    return std::make_unique<GetSettingsCommand>(&arguments.groups, &arguments.result);
}

template <unsigned int Flags>
std::unique_ptr<RemoteCommand> Merge(Arguments& arguments)
{
    return std::make_unique<MergeCommand>(&arguments.first, Flags);
}

std::unique_ptr<RemoteCommand> TestAndMerge(Arguments& arguments)
{
    return std::make_unique<TestAndMergeCommand>(&arguments.first, &arguments.second);
}

std::unique_ptr<RemoteCommand> Overwrite(Arguments& arguments)
{
    return std::make_unique<OverwriteCommand>(&arguments.groups, &arguments.first);
}

std::unique_ptr<RemoteCommand> Restore(Arguments& arguments)
{
    return std::make_unique<RestoreToDefaultsCommand>(&arguments.groups);
}

const IniFile Nothing;

std::vector<CommandRow> CommandRows()
{
    const IniFile volume9 = Ini("[Audio]\nvolume=9\n");
    const IniFile volume4 = Ini("[Audio]\nvolume=4\n");
    const IniFile volume3 = Ini("[Audio]\nvolume=3\n");
    const IniFile volume2 = Ini("[Audio]\nvolume=2\n");
    const IniFile volume1 = Ini("[Audio]\nvolume=1\n");
    return {
        {"get delimited", {{"Audio"}, Nothing, Nothing, Nothing}, Get},
        {"get delimited of a pattern", {{"Net/*"}, Nothing, Nothing, Nothing}, Get},
        {"get delimited of nothing", {{}, Nothing, Nothing, Nothing}, Get},
        {"get delimited of an unknown group", {{"Nobody"}, Nothing, Nothing, Nothing}, Get},
        {"get delimited of an empty name", {{""}, Nothing, Nothing, Nothing}, Get},
        {"merge", {{}, volume9, Nothing, Nothing}, Merge<0>},
        {"merge", {{}, volume9, Nothing, Nothing}, Merge<2>},
        {"merge nopersist", {{}, volume9, Nothing, Nothing}, Merge<1>},
        {"merge nopersist", {{}, volume9, Nothing, Nothing}, Merge<3>},
        {"merge of nothing", {}, Merge<0>},
        {"merge of bytes that text cannot carry", {{}, Ini("[Audio]\nname=\"a\\nb\\n.\\n\"\n"), {}, {}}, Merge<0>},
        {"test-and-merge that succeeds", {{}, volume3, volume4, Nothing}, TestAndMerge},
        {"test-and-merge that fails", {{}, volume2, volume4, Nothing}, TestAndMerge},
        {"test-and-merge that expects nothing", {{}, Nothing, volume4, Nothing}, TestAndMerge},
        {"test-and-merge of nothing", {}, TestAndMerge},
        {"overwrite", {{"Audio"}, volume1, Nothing, Nothing}, Overwrite},
        {"overwrite with nothing erases", {{"Net/*"}, Nothing, Nothing, Nothing}, Overwrite},
        {"overwrite of no groups merges", {{}, volume1, Nothing, Nothing}, Overwrite},
        {"restore of nothing", {}, Restore},
    };
}

TEST(RemoteCommandsTest, EveryRequestIsTheOneOfTheTable)
{
    for (CommandRow& row : CommandRows())
    {
        SCOPED_TRACE(row.exchange);
        EXPECT_EQ(RequestOf(*row.create(row.arguments)), ExchangeNamed(row.exchange).request);
    }
}

/// Says whether a response that begins with its keyword came, and reads it.
bool ReadResponse(std::istream& in, RemoteCommand& command, bool& result)
{
    std::string keyword;
    if (!std::getline(in, keyword))
    {
        return false;
    }
    EXPECT_EQ(keyword, command.GetResponseKeyword());
    result = command.HandleResponse(in);
    return true;
}

TEST(RemoteCommandsTest, EveryResponseOfTheTableIsReadToItsEndHoweverItArrives)
{
    for (const std::size_t pieceBytes : {1u, 2u, 3u, 5u, 4096u})
    {
        for (CommandRow& row : CommandRows())
        {
            SCOPED_TRACE(std::string(row.exchange) + ", in pieces of " + std::to_string(pieceBytes));
            const Exchange& exchange = ExchangeNamed(row.exchange);
            const std::unique_ptr<RemoteCommand> pCommand = row.create(row.arguments);
            PiecewiseStream in(exchange.response + "next\n", pieceBytes);
            bool result = false;
            if (!exchange.response.empty())
            {
                ASSERT_TRUE(ReadResponse(in, *pCommand, result));
                EXPECT_EQ(result, exchange.response.find("failure") == std::string::npos);
            }
            std::string next;
            std::getline(in, next);
            EXPECT_EQ(next, "next");
            if (exchange.response.starts_with("data\n"))
            {
                EXPECT_EQ("data\n" + TextOf(row.arguments.result) + ".\n", exchange.response);
            }
        }
    }
}

TEST(RemoteCommandsTest, TheKeywordsAreThoseOfTheProtocol)
{
    Arguments arguments;
    EXPECT_EQ(Get(arguments)->GetResponseKeyword(), "data");
    EXPECT_EQ(TestAndMerge(arguments)->GetResponseKeyword(), "result");
    EXPECT_EQ(Merge<0>(arguments)->GetResponseKeyword(), "");
    EXPECT_EQ(Overwrite(arguments)->GetResponseKeyword(), "");
    EXPECT_EQ(Restore(arguments)->GetResponseKeyword(), "");
}

TEST(RemoteCommandsTest, RestoreSendsItsGroupsInOrder)
{
    const GroupNameCollection groups{"b", "a*", "a"};
    RestoreToDefaultsCommand command(&groups);
    EXPECT_EQ(RequestOf(command), "restore\na\na*\nb\n.\n");
}

TEST(RemoteCommandsTest, TheBaseReadsNoResponse)
{
    const IniFile changes;
    MergeCommand command(&changes, 0);
    std::istringstream in("line\n");
    EXPECT_TRUE(command.HandleResponse(in));
    EXPECT_EQ(in.tellg(), 0);
}

TEST(RemoteCommandsTest, OnlyExactlyOkIsSuccess)
{
    const IniFile nothing;
    for (const char* answer : {"failure\n", "OK\n", "ok \n", " ok\n", "ok\r\n", "okay\n", "\n", ""})
    {
        SCOPED_TRACE(answer);
        TestAndMergeCommand command(&nothing, &nothing);
        std::istringstream in(answer);
        EXPECT_FALSE(command.HandleResponse(in));
        EXPECT_FALSE(command.GetOutcome());
    }
}

TEST(RemoteCommandsTest, AnOutcomeIsNeverSetBack)
{
    const IniFile nothing;
    TestAndMergeCommand command(&nothing, &nothing);
    EXPECT_FALSE(command.GetOutcome());
    std::istringstream in("ok\nfailure\n");
    EXPECT_TRUE(command.HandleResponse(in));
    EXPECT_TRUE(command.HandleResponse(in));
    EXPECT_TRUE(command.GetOutcome());
}

TEST(RemoteCommandsTest, AResultIsAddedToWhatTheDocumentHolds)
{
    const GroupNameCollection groups{"A"};
    IniFile result = Ini("[A]\nold=1\nx=1\n[B]\ny=2\n");
    GetSettingsCommand command(&groups, &result);
    std::istringstream in("[A]\nx=2\n.\n");
    EXPECT_TRUE(command.HandleResponse(in));
    EXPECT_EQ(result, Ini("[A]\nold=1\nx=2\n[B]\ny=2\n"));
}

TEST(RemoteCommandsTest, ABodyThatIsCutOffFillsTheDocumentAsFarAsItGoes)
{
    const GroupNameCollection groups{"A"};
    IniFile result;
    GetSettingsCommand command(&groups, &result);
    std::istringstream in("[A]\nx=2\n");
    EXPECT_TRUE(command.HandleResponse(in));
    EXPECT_EQ(result, Ini("[A]\nx=2\n"));
    EXPECT_TRUE(in.fail()) << "the stream's state tells that the connection is lost";
}

TEST(RemoteCommandsTest, ANameThatAListCannotCarryIsRefusedBeforeAnythingIsWritten)
{
    const IniFile nothing;
    for (const std::string name : {".", "a\nb", "\n", "a\n", "a\n.\nquit"})
    {
        SCOPED_TRACE(name);
        const GroupNameCollection groups{"fine", name};
        IniFile result;
        const std::string expected =
            "Group name '" + name + "' cannot be sent: it is a full stop or holds a line break";
        EXPECT_EQ(MessageOf([&] { GetSettingsCommand(&groups, &result); }), expected);
        EXPECT_EQ(MessageOf([&] { OverwriteCommand(&groups, &nothing); }), expected);
        EXPECT_EQ(MessageOf([&] { RestoreToDefaultsCommand command(&groups); }), expected);
    }
}

TEST(RemoteCommandsTest, ABodyMayHoldNamesThatAListCannotCarry)
{
    IniFile changes;
    changes.SetValue(".", "k", "v");
    changes.SetValue("a\nb", ".", ".\n.");
    MergeCommand command(&changes, 0);
    const std::string request = RequestOf(command);
    EXPECT_EQ(request.find("\n.\n"), request.size() - 3) << request;
}

}  // namespace
}  // namespace korlo::settings::client

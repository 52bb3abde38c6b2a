#include "ServerConnection.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <vector>

#include "Failure.h"
#include "korlo/osa/Exception.h"
#include "korlo/stl/DelimitedStreamBuf.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::cli
{
namespace
{

constexpr const char* ServerHost = "korlo-settings-server";
constexpr unsigned short PortOfHost = 0;
constexpr unsigned short NoDelay = 1;
constexpr unsigned int ConnectTimeoutMs = 5'000;
constexpr unsigned int AnswerTimeoutMs = 15'000;  // a change may have to wait for a slow disk
constexpr const char* EndOfBlock = ".";

osa::TcpSocket* Connected(osa::TcpSocket& socket)
{
    socket.Connect(ServerHost, PortOfHost, ConnectTimeoutMs);
    return &socket;
}

/// A line of a group list that selects the group too, and more, where the name itself cannot be a line of one.
std::string LooseName(std::string name)
{
    std::replace(name.begin(), name.end(), '\n', '*');
    return name == EndOfBlock ? name + '*' : name;
}

void WriteNames(std::ostream& out, const GroupNameCollection& groups)
{
    for (const std::string& group : groups)
    {
        out << group << '\n';
    }
    out << EndOfBlock << '\n';
}

void WriteBody(std::ostream& out, const core::IniFile& settings)
{
    settings.SaveToStream(out);
    out << EndOfBlock << '\n';
}

[[noreturn]] void ThrowUnanswered()
{
    throw osa::Exception("It ended the connection, or gave no answer for %u seconds; a change may or may not be made",
                         AnswerTimeoutMs / 1000);
}

[[noreturn]] void ThrowMisunderstood()
{
    throw osa::Exception("Something else than a settings server seems to answer there");
}

}  // namespace

ServerConnection::ServerConnection() : _socket(NoDelay), _stream(Connected(_socket), AnswerTimeoutMs)
{
}

void ServerConnection::GetSettings(const GroupNameCollection& groups, core::IniFile& settings)
{
    GroupNameCollection names;
    std::transform(groups.begin(), groups.end(), std::inserter(names, names.end()), LooseName);
    Out() << "get delimited\n";
    WriteNames(Out(), names);
    Out().flush();
    Expect("data");
    core::IniFile found;
    found.LoadFromString(ReadBlock());

    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    GroupNameCollection matched;
    matcher.GetMatchingGroups(found, matched);
    for (const std::string& group : matched)
    {
        settings.MergeSettings(found, group);
    }
}

void ServerConnection::MergeSettings(const core::IniFile& changes, unsigned int flags)
{
    const bool isForNow = (flags & server::SettingsManager::DoNotPersist) != 0;
    Out() << (isForNow ? "merge nopersist\n" : "merge\n");
    WriteBody(Out(), changes);
    Confirm();
}

bool ServerConnection::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    Out() << "test-and-merge\n";
    WriteBody(Out(), expected);
    WriteBody(Out(), changes);
    Out().flush();
    Expect("result");
    return ReadLine() == "ok";
}

void ServerConnection::OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings)
{
    CheckNames(groups);
    Out() << "overwrite\n";
    WriteNames(Out(), groups);
    WriteBody(Out(), settings);
    Confirm();
}

void ServerConnection::EraseGroups(const GroupNameCollection& groups)
{
    OverwriteSettings(groups, core::IniFile());
}

void ServerConnection::RestoreToDefaults(const GroupNameCollection& groups)
{
    CheckNames(groups);
    Out() << "restore\n";
    WriteNames(Out(), groups);
    Confirm();
}

std::string ServerConnection::Dump(bool all)
{
    Out() << (all ? "dump all\n" : "dump\n") << std::flush;
    return ReadBlock();
}

/// A group may be called "data", or be without a name, so that no line of the list itself can be told from its end.
/// But none is called ".": the first such line ends the answer to the get that follows.
GroupNameCollection ServerConnection::GetSubscribedGroups()
{
    Out() << "info subscribed\n";
    Out() << "get delimited\n.\n" << std::flush;
    Expect("Subscribed groups");
    Expect("-----------------");
    std::vector<std::string> lines;
    for (std::string line = ReadLine(); line != EndOfBlock; line = ReadLine())
    {
        lines.push_back(line);
    }
    const std::vector<std::string> ending = {"", "data"};
    if (lines.size() < ending.size() || !std::equal(ending.rbegin(), ending.rend(), lines.rbegin()))
    {
        ThrowMisunderstood();
    }
    return GroupNameCollection(lines.begin(), std::prev(lines.end(), 2));
}

void ServerConnection::Quit()
{
    Out() << "quit\n" << std::flush;
    _stream.ignore(std::numeric_limits<std::streamsize>::max());
}

void ServerConnection::CheckNames(const GroupNameCollection& groups)
{
    for (const std::string& group : groups)
    {
        if (LooseName(group) != group)
        {
            throw Failure(StatusWrongCommandLine,
                          "a name that holds a line break, or is a single full stop, cannot be sent to a server: " +
                              Quoted(group),
                          "a pattern that matches it can: " + Quoted(LooseName(group)));
        }
    }
}

/// A request to change has no answer. The server carries out the requests of a connection one after the other, so the
/// answer to a read, even of nothing, says that it has carried out what came before.
void ServerConnection::Confirm()
{
    core::IniFile nothing;
    GetSettings(GroupNameCollection(), nothing);
}

void ServerConnection::Expect(const std::string& expected)
{
    if (ReadLine() != expected)
    {
        ThrowMisunderstood();
    }
}

std::string ServerConnection::ReadLine()
{
    std::string line;
    if (!std::getline(_stream, line) || _stream.eof())
    {
        ThrowUnanswered();
    }
    return line;
}

std::string ServerConnection::ReadBlock()
{
    stl::DelimitedStreamBuf block(&_stream, EndOfBlock);
    std::string text{std::istreambuf_iterator<char>(&block), std::istreambuf_iterator<char>()};
    if (!block.DelimiterFound())
    {
        ThrowUnanswered();
    }
    return text;
}

}  // namespace korlo::settings::cli

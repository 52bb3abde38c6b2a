#pragma once
// The settings protocol (docs/protocol.md): its words and its framing. No other file knows them.

#include <istream>
#include <ostream>
#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::common
{

/// Every word that travels, exactly.
namespace word
{

// Commands: the first word of a request.
inline constexpr const char* Get = "get";
inline constexpr const char* Merge = "merge";
inline constexpr const char* TestAndMerge = "test-and-merge";
inline constexpr const char* Overwrite = "overwrite";
inline constexpr const char* Restore = "restore";
inline constexpr const char* Subscribe = "subscribe";
inline constexpr const char* Dump = "dump";
inline constexpr const char* Serialize = "serialize";
inline constexpr const char* Info = "info";
inline constexpr const char* Quit = "quit";

// Options: the second word of a request.
inline constexpr const char* Delimited = "delimited";    // get
inline constexpr const char* NoPersist = "nopersist";    // merge
inline constexpr const char* All = "all";                // dump
inline constexpr const char* Subscribed = "subscribed";  // info

// What a server says: keywords, and the lines behind them.
inline constexpr const char* Data = "data";      // the response to "get delimited"; a body follows
inline constexpr const char* Result = "result";  // the response to "test-and-merge"; Ok or Failure follows
inline constexpr const char* Ok = "ok";
inline constexpr const char* Failure = "failure";
inline constexpr const char* Async = "async";                        // the first word of AsyncChange
inline constexpr const char* AsyncChange = "async change";           // a notification; a group list and a body follow
inline constexpr const char* SubscribedTitle = "Subscribed groups";  // the response to "info subscribed"
inline constexpr const char* SubscribedRule = "-----------------";   // its second line

// The line that ends every block: a group list, a body, a dump.
inline constexpr const char* EndOfBlock = ".";

}  // namespace word

/// The first word of the line, between blanks; empty if there is none.
std::string_view FirstWord(std::string_view line);

/// False for what a list of lines cannot carry: a name that holds a line break, or is the full stop that ends the list.
bool FitsGroupList(const std::string& nameOrPattern);

/// @throws osa::Exception naming the first entry that does not fit.
void CheckGroupList(const GroupNameCollection& groups);

/// Writes one line for each entry and the line that ends the list. The entries fit.
void WriteGroupList(std::ostream& out, const GroupNameCollection& groups);

/// Writes requests, each whole and flushed. Names must fit a group list. Errors show in the stream's state; a request
/// that could not be made whole for want of memory, too, has failed the stream, and what is thrown passes out: so
/// nothing is ever written behind half a request.
///
///     RequestWriter(out).Get({"Network"});
///
/// Thread safety: none of its own; it belongs to the thread that writes to the stream.
class RequestWriter
{
public:
    /// @param out borrowed; must outlive this object.
    explicit RequestWriter(std::ostream& out) : _out(out) {}

    void Get(const GroupNameCollection& groups) const;
    void Merge(const core::IniFile& changes, bool persist) const;
    void TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) const;
    void Overwrite(const GroupNameCollection& groups, const core::IniFile& settings) const;
    void Restore(const GroupNameCollection& groups) const;
    void Subscribe(const GroupNameCollection& groups) const;

    /// @param all false asks for the user layer alone.
    void Dump(bool all) const;

    /// Asks for the groups that anybody is subscribed to.
    void InfoSubscribed() const;
    void Quit() const;

private:
    template <typename Write>
    void Send(const Write& write) const;
    void SendList(std::string_view command, const GroupNameCollection& groups) const;
    void WriteBody(const core::IniFile& settings) const;

    std::ostream& _out;
};

/// Reads what follows the first line of a response or of a notification. A part that the end of the connection cuts
/// short leaves the stream no longer good(), and what was read of it tells nothing. What is thrown inside a block, for
/// want of memory, fails the stream: its next line would be taken for something else.
///
/// Thread safety: none of its own; it belongs to the thread that reads the stream.
class ResponseReader
{
public:
    /// @param in borrowed; must outlive this object.
    explicit ResponseReader(std::istream& in) : _in(in) {}

    /// The body behind "data", added to `settings`.
    void ReadSettings(core::IniFile& settings) const;

    /// The line behind "result": true for exactly "ok", with its line break.
    bool ReadOutcome() const;

    /// The list and the body behind "async change", added to `groups` and `settings`.
    void ReadNotification(GroupNameCollection& groups, core::IniFile& settings) const;

    /// One block as it stands, without its last line: the response to "dump".
    std::string ReadText() const;

    /// Reads past what follows that keyword.
    void Skip(std::string_view keyword) const;

private:
    std::istream& _in;
};

}  // namespace korlo::settings::common

#include <atomic>
#include <exception>

#include <unistd.h>

#include "Commands.h"
#include "DocumentSplitter.h"
#include "IniText.h"
#include "Interruption.h"
#include "Json.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "korlo/core/Logger.h"
#include "settings/IChangeCallback.h"
#include "settings/IConnectionCallback.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

/// Prints each change, and interrupts the watching when there were enough of them or one could not be printed.
///
/// Thread safety: OnChange on any thread, one call at a time; the rest on the thread that watches, after it was
/// interrupted.
class ChangePrinter : public IChangeCallback
{
public:
    /// @param interruption borrowed; must outlive the printer.
    ChangePrinter(const Invocation& invocation, const Interruption& interruption)
        : _asJson(invocation.asJson),
          _mostChanges(invocation.count),
          _interruption(interruption)
    {
    }

    void OnChange(const GroupNameCollection& changedGroups, const IniFile& settings) override
    {
        if (_finished)
        {
            return;
        }
        try
        {
            Print(changedGroups, settings);
            ++_changes;
            _finished = _changes == _mostChanges;
        }
        catch (...)
        {
            _pError = std::current_exception();  // this is a client's thread, or the middle of a change
            _finished = true;
        }
        if (_finished)
        {
            _interruption.Raise();
        }
    }

    bool IsFinished() const { return _finished; }

    void RethrowError() const
    {
        if (_finished && _pError)
        {
            std::rethrow_exception(_pError);
        }
    }

private:
    void Print(const GroupNameCollection& changedGroups, const IniFile& settings) const;

    const bool _asJson;
    const unsigned long _mostChanges;  // 0 without limit
    const Interruption& _interruption;
    unsigned long _changes = 0;
    std::exception_ptr _pError;
    std::atomic<bool> _finished{false};  // set last
};

void ChangePrinter::Print(const GroupNameCollection& changedGroups, const IniFile& settings) const
{
    IniFile changed;
    std::string comment = "# changed:";
    for (const std::string& group : changedGroups)
    {
        changed.MergeSettings(settings, group);
        comment += (group == *changedGroups.begin() ? " " : ", ") + NameToken(group);
    }
    WriteOutput(_asJson ? JsonOf({{"groups", changedGroups}, {"settings", changed}})
                        : comment + '\n' + TextOf(changed) + '\n');
}

/// Says what becomes of the connection of a client that is connected.
///
/// Thread safety: as IConnectionCallback.
class ConnectionReporter : public IConnectionCallback
{
public:
    void OnConnectionState(bool isConnected) override
    {
        if (isConnected != _wasConnected)
        {
            WriteMessage(isConnected ? "the settings server is back"
                                     : "the settings server is gone; waiting for it to come back");
            _wasConnected = isConnected;
        }
    }

private:
    bool _wasConnected = true;
};

void MergeDocument(Session& session, const std::string& text)
{
    IniFile changes;
    changes.LoadFromString(text);
    if (!changes.empty())
    {
        session.Change(common::GroupNamesOf(changes),
                       [&](KorloSettingsClient& client) { client.MergeSettings(changes); });
        ReportRestricted(common::GroupNamesOf(changes));
    }
}

/// Nobody but this process changes a store that lives in it, so the changes come from standard input.
void MergeInput(Session& session, const Interruption& interruption, const ChangePrinter& printer)
{
    DocumentSplitter splitter;
    bool ended = false;
    while (!ended && interruption.Wait(STDIN_FILENO) == Interruption::InputReady)
    {
        const std::string piece = ReadPieceOfInput();
        ended = piece.empty();
        ended ? splitter.AddEnd() : splitter.Add(piece);
        for (auto text = splitter.Take(); text && !printer.IsFinished(); text = splitter.Take())
        {
            MergeDocument(session, *text);
        }
    }
}

}  // namespace

ExitStatus RunWatch(const Invocation& invocation)
{
    // In this order: the session ends first, and with it all calls to the other two.
    const Interruption interruption;
    ChangePrinter printer(invocation, interruption);
    ConnectionReporter reporter;
    Session session(invocation.target, Session::Watching);
    const GroupNameCollection names = NamesOf(invocation.operands);
    session.CheckNames(names);
    session.Subscribe(printer, names, reporter);
    if (session.IsInProcess())
    {
        MergeInput(session, interruption, printer);
    }
    else
    {
        for (const char* log : {"KorloSettings", "KorloSettingsConnection"})
        {
            core::Logger::GetLogger(log)->SetThreshold(0);  // the reporter says it in fewer words
        }
        WriteMessage("watching");  // whoever waits for this line misses no change after it
        interruption.Wait(Interruption::NoInput);
    }
    printer.RethrowError();
    return StatusDone;
}

}  // namespace korlo::settings::cli

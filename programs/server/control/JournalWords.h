#pragma once
// The words of the control door that read the journal.

#include <string>

#include "control/IControlWord.h"
#include "journal/Journal.h"

namespace korlo::daemon
{

/// "journal [N]": the entries, or the last N of them.
///
/// Thread safety: as IControlWord.
class JournalWord : public AnsweredWord
{
public:
    /// @param pJournal borrowed; null where the server keeps none.
    explicit JournalWord(const Journal* pJournal) : _pJournal(pJournal) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    const Journal* const _pJournal;
};

/// "follow [NUMBER]": at once the entries after that number, none without one; then, until the client sends anything or
/// leaves, those that are made or renewed. What comes within a moment is one answer, so that a busy counter costs its
/// follower ten answers a second, and a follower that is slow gets an entry once that was renewed many times.
///
/// Thread safety: as IControlWord.
class FollowWord : public IControlWord
{
public:
    static constexpr unsigned int MomentMs = 100;

    /// @param pJournal borrowed; null where the server keeps none.
    explicit FollowWord(Journal* pJournal) : _pJournal(pJournal) {}

    void Serve(const std::string& operands, IControlClient& client) override;

private:
    Journal* const _pJournal;
};

}  // namespace korlo::daemon

#pragma once
// The word of the control door that saves.

#include <functional>
#include <list>
#include <string>

#include "PlainMutex.h"
#include "control/IControlWord.h"
#include "korlo/osa/Thread.h"

namespace korlo::daemon
{

/// "save": answers when everything that was changed before it is on the disk; a save that fails is the answer's error.
///
/// The saving is done by a thread that lives while somebody waits for it, one save for all who have asked before it
/// began. So a client that leaves while the disk hangs does not wait on: its place at the door is free at once. Few may
/// wait at a time, so that others still find room there to ask what is wrong.
///
/// Thread safety: as IControlWord.
class SaveWord : public IControlWord, private osa::Runnable
{
public:
    static constexpr unsigned int MostWaiting = 4;  ///< half of what the door serves

    /// Returns when everything is saved, or throws.
    using Save = std::function<void()>;

    explicit SaveWord(Save save);
    SaveWord(const SaveWord&) = delete;
    SaveWord& operator=(const SaveWord&) = delete;

    /// Waits for a save that is under way.
    ~SaveWord() override = default;

    void Serve(const std::string& operands, IControlClient& client) override;

private:
    /// One who waits.
    struct Waiting
    {
        IControlClient* pClient = nullptr;  // not owned
        bool hasBegun = false;              // the save that counts for it
        bool isSaved = false;
        std::string failure;  // empty unless that save failed
    };
    using Place = std::list<Waiting>::iterator;
    class Turn;

    void Run() override;
    bool BeginSave();
    void EndSave(const std::string& failure);

    const Save _save;
    PlainMutex _mutex;
    std::list<Waiting> _waiting KORLO_GUARDED_BY(_mutex);
    bool _isRunning KORLO_GUARDED_BY(_mutex) = false;  // the thread; it says so as the last thing that it does
    osa::Thread _thread;                               // last; started and joined with _mutex held
};

}  // namespace korlo::daemon

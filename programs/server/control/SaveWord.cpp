#include "control/SaveWord.h"

#include <exception>
#include <utility>

#include "ControlProtocol.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 64 * 1024;

}  // namespace

/// A place among those who wait.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class SaveWord::Turn
{
public:
    /// Sees to it that a save begins.
    Turn(SaveWord& word, IControlClient& client) : _word(word)
    {
        const PlainLock lock(_word._mutex);
        if (_word._waiting.size() == MostWaiting)
        {
            throw osa::Exception("%u others wait already for what is being saved; 'status' tells for how long",
                                 MostWaiting);
        }
        if (!_word._isRunning)
        {
            _word._thread.Join();  // it has done all but return
            _word._thread.Run();
            _word._isRunning = true;
        }
        _place = _word._waiting.emplace(_word._waiting.end());
        _place->pClient = &client;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn()
    {
        const PlainLock lock(_word._mutex);
        _word._waiting.erase(_place);
    }

    /// @throws osa::Exception when the save has failed.
    bool IsSaved() const
    {
        const PlainLock lock(_word._mutex);
        if (!_place->failure.empty())
        {
            throw osa::Exception("%s", _place->failure.c_str());
        }
        return _place->isSaved;
    }

private:
    SaveWord& _word;
    Place _place;
};

SaveWord::SaveWord(Save save) : _save(std::move(save)), _thread("Save", this, StackBytes, 0)
{
}

void SaveWord::Serve(const std::string& operands, IControlClient& client)
{
    CheckStandsAlone(control::Save, operands);
    {
        const Turn turn(*this, client);
        while (!turn.IsSaved())
        {
            if (!client.Stay(osa::Infinite))
            {
                return;
            }
        }
    }
    client.Send(core::IniFile());
}

/// Saves as long as somebody waits for a save that has not begun.
void SaveWord::Run()
{
    while (BeginSave())
    {
        std::string failure;
        try
        {
            _save();
        }
        catch (const std::exception& exception)
        {
            failure = *exception.what() != '\0' ? exception.what() : "unknown reason";
        }
        EndSave(failure);
    }
}

bool SaveWord::BeginSave()
{
    const PlainLock lock(_mutex);
    _isRunning = false;
    for (Waiting& waiting : _waiting)
    {
        _isRunning = _isRunning || !waiting.hasBegun;
        waiting.hasBegun = true;
    }
    return _isRunning;
}

void SaveWord::EndSave(const std::string& failure)
{
    const PlainLock lock(_mutex);
    for (Waiting& waiting : _waiting)
    {
        if (waiting.hasBegun && !waiting.isSaved && waiting.failure.empty())
        {
            waiting.isSaved = failure.empty();
            waiting.failure = failure;
            waiting.pClient->Wake();
        }
    }
}

}  // namespace korlo::daemon

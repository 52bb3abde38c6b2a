#include "control/SaveWord.h"

#include "ControlProtocol.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{

/// A place among those who wait.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class SaveWord::Turn
{
public:
    explicit Turn(SaveWord& word) : _word(word)
    {
        const PlainLock lock(_word._mutex);
        if (_word._waiting == MostWaiting)
        {
            throw osa::Exception("%u others wait already for what is being saved; 'status' tells for how long",
                                 MostWaiting);
        }
        ++_word._waiting;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn()
    {
        const PlainLock lock(_word._mutex);
        --_word._waiting;
    }

private:
    SaveWord& _word;
};

core::IniFile SaveWord::Answer(const std::string& operands)
{
    CheckStandsAlone(control::Save, operands);
    const Turn turn(*this);
    _save();
    return core::IniFile();
}

}  // namespace korlo::daemon

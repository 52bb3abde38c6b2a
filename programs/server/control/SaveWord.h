#pragma once
// The word of the control door that saves.

#include <functional>
#include <string>

#include "PlainMutex.h"
#include "control/IControlWord.h"

namespace korlo::daemon
{

/// "save": answers when everything that was changed before it is on the disk; a save that fails is the answer's error.
///
/// A disk that hangs keeps its client waiting. Few may wait at once, so that others still find room at the door to ask
/// what is wrong.
///
/// Thread safety: as IControlWord.
class SaveWord : public AnsweredWord
{
public:
    static constexpr unsigned int MostWaiting = 4;  ///< half of what the door serves

    /// Returns when everything is saved, or throws.
    using Save = std::function<void()>;

    explicit SaveWord(Save save) : _save(std::move(save)) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    class Turn;

    const Save _save;
    PlainMutex _mutex;
    unsigned int _waiting KORLO_GUARDED_BY(_mutex) = 0;
};

}  // namespace korlo::daemon

#pragma once
// One word that the control door understands.

#include <string>

#include "korlo/core/IniFile.h"

namespace korlo::daemon
{

/// Answers the requests that begin with one word.
///
/// Thread safety: Answer from any thread, several at once.
class IControlWord
{
public:
    virtual ~IControlWord() = default;

    /// The word itself.
    virtual const char* GetName() const = 0;

    /// @param operands what follows the word in its line, without the blanks before it.
    /// @return the document of the answer.
    /// @throws std::exception whose text is for the person who asks: it becomes the answer.
    virtual core::IniFile Answer(const std::string& operands) = 0;
};

}  // namespace korlo::daemon

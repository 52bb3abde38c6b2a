#pragma once
// The words that the control door understands.

#include <string>

#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{

/// Whoever has sent a request, for as long as it is served.
///
/// Thread safety: Wake from any thread; the rest belongs to the thread that serves the request.
class IControlClient
{
public:
    virtual ~IControlClient() = default;

    /// Sends an answer: the line `ok`, the document and the line of a full stop.
    /// @return false when the client does not take it, or has gone.
    virtual bool Send(const core::IniFile& answer) = 0;

    /// Waits until the time is up or Wake is called, or was since the last Wait or Stay.
    /// @return false when the client has sent something, or has gone, or the server ends: the request is over.
    virtual bool Wait(unsigned int timeoutMs) = 0;

    /// The same for a request that is answered whatever the client sends meanwhile, or whether it will send any more.
    /// @return false when the client has gone, or the server ends.
    virtual bool Stay(unsigned int timeoutMs) = 0;

    /// Ends a Wait or Stay. Waits for nothing.
    virtual void Wake() = 0;
};

/// Serves the requests that begin with one word. To add one, write the class and a line of the list in
/// ServerProgram.cpp, which names it.
///
/// Thread safety: Serve from any thread, several at once.
class IControlWord
{
public:
    virtual ~IControlWord() = default;

    /// Sends one answer or several, one after the other.
    /// @param operands what follows the word in its line, without the blanks before it.
    /// @throws std::exception whose text is for the person who asks: it becomes the answer.
    virtual void Serve(const std::string& operands, IControlClient& client) = 0;
};

/// @throws osa::Exception for a word that stands alone and is given operands.
inline void CheckStandsAlone(const char* word, const std::string& operands)
{
    if (!operands.empty())
    {
        throw osa::Exception("usage: %s", word);
    }
}

/// A word that is answered at once.
///
/// Thread safety: as IControlWord.
class AnsweredWord : public IControlWord
{
public:
    /// @return the document of the answer.
    /// @throws as Serve.
    virtual core::IniFile Answer(const std::string& operands) = 0;

    void Serve(const std::string& operands, IControlClient& client) final { client.Send(Answer(operands)); }
};

}  // namespace korlo::daemon

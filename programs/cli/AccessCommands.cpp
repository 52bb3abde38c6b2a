#include <algorithm>

#include "Commands.h"
#include "ControlAnswer.h"
#include "ControlConnection.h"
#include "ControlProtocol.h"
#include "IniText.h"
#include "Json.h"
#include "StandardStreams.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;
using nlohmann::json;

constexpr const char* AnswerGroup = "Access";
constexpr const char* HintAtNumber = "a user is a name that the server's system knows, or a number";

std::string Said(const IniFile& answer, const char* key)
{
    return answer.GetValueOrDefault(AnswerGroup, key);
}

int SaidNumber(const IniFile& answer, const char* key)
{
    return NumberOf(key, Said(answer, key));
}

void CheckUser(const std::string& user)
{
    // In the request it is one word.
    if (user.empty() || user.find_first_of(" \t\n") != std::string::npos)
    {
        throw Failure(StatusWrongCommandLine, "unknown user " + Quoted(user), HintAtNumber);
    }
}

void CheckKind(const std::string& kind)
{
    if (kind != control::Read && kind != control::Change)
    {
        throw Failure(StatusWrongCommandLine,
                      std::string("access check takes ") + control::Read + " or " + control::Change + ", not " +
                          Quoted(kind),
                      "for example korlo-settings access check www-data read Audio");
    }
}

/// With the names and the 0 or 1 of the server's own answer; null for `rule`, `file` and `line` where no rule decided.
json VerdictOf(const IniFile& answer)
{
    json verdict = {{"allowed", SaidNumber(answer, "allowed") != 0 ? 1 : 0},
                    {"reason", Said(answer, "reason")},
                    {"rule", nullptr},
                    {"file", nullptr},
                    {"line", nullptr}};
    if (answer.HasValue(AnswerGroup, "rule"))
    {
        verdict["rule"] = Said(answer, "rule");
        verdict["file"] = Said(answer, "file");
        verdict["line"] = SaidNumber(answer, "line");
    }
    return verdict;
}

/// A line, whatever the names hold.
std::string TextOf(const json& verdict)
{
    const bool isAllowed = verdict["allowed"] == 1;
    const std::string outcome = isAllowed ? "allowed: " : "refused: ";
    if (verdict["rule"].is_null())
    {
        return outcome + verdict["reason"].get<std::string>() + '\n';
    }
    return outcome + "rule " + Quoted(NameToken(verdict["rule"])) + " in " + NameToken(verdict["file"]) + " line " +
           verdict["line"].dump() + (isAllowed ? " allows it\n" : " denies it\n");
}

}  // namespace

ExitStatus RunAccessCheck(const Invocation& invocation)
{
    const std::string& user = invocation.operands[0];
    const std::string& kind = invocation.operands[1];
    CheckUser(user);
    CheckKind(kind);
    const std::string request =
        std::string(control::AccessCheck) + ' ' + user + ' ' + kind + ' ' + NameToken(invocation.operands[2]);
    try
    {
        const json verdict = VerdictOf(ControlConnection(invocation.control).Ask(request));
        WriteOutput(invocation.asJson ? JsonOf(verdict) : TextOf(verdict));
        return verdict["allowed"] == 1 ? StatusDone : StatusNo;
    }
    catch (const ControlError& error)
    {
        const std::string message = error.what();
        throw message.starts_with(control::UnknownUser)
            ? Failure(StatusWrongCommandLine, message, HintAtNumber)
            : Failure(StatusUnusable, "the server failed to answer: " + Reason(message));
    }
}

ExitStatus RunAccessReload(const Invocation& invocation)
{
    try
    {
        const IniFile answer = ControlConnection(invocation.control).Ask(control::AccessReload);
        const int rules = SaidNumber(answer, "rules");
        const std::vector<std::string> warnings = NumberedValues(answer[AnswerGroup], "warning.");
        if (invocation.asJson)
        {
            WriteOutput(JsonOf({{"rules", rules}, {"warnings", warnings}}));
            return StatusDone;
        }
        std::ranges::for_each(warnings, WriteMessage);
        WriteOutput("access rules in force: " + std::to_string(rules) + '\n');
        return StatusDone;
    }
    catch (const ControlError& error)
    {
        throw Failure(StatusNo, Reason(error.what()));
    }
}

}  // namespace korlo::settings::cli

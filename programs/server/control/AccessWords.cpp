#include "control/AccessWords.h"

#include <optional>
#include <string_view>

#include "ControlProtocol.h"
#include "access/AccessRulesReader.h"
#include "access/ClientIdentity.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

constexpr const char* AnswerGroup = "Access";
constexpr std::string_view Blanks = " \t";

/// Takes the next operand off the front, and the blanks behind it.
std::string TakeOperand(std::string_view& operands)
{
    const std::string_view operand = operands.substr(0, operands.find_first_of(Blanks));
    operands.remove_prefix(operand.size());
    operands.remove_prefix(std::min(operands.find_first_not_of(Blanks), operands.size()));
    return std::string(operand);
}

const char* ReasonText(AccessDecision::Reason reason)
{
    switch (reason)
    {
    case AccessDecision::Reason::NoRules:
        return "the server was given no rules: everything is allowed";
    case AccessDecision::Reason::Privileged:
        return "user 0 and the server's own user may do everything";
    case AccessDecision::Reason::Allowed:
        return "the rule allows it";
    case AccessDecision::Reason::Denied:
        return "the rule denies it, whatever others allow";
    case AccessDecision::Reason::NotAllowed:
        return "no rule allows it";
    case AccessDecision::Reason::ErasedRecord:
        return "the record of erased groups is changed only by who may change everything";
    case AccessDecision::Reason::Restricted:
        return "the group is restricted: no client changes it";
    }
    return "";
}

}  // namespace

core::IniFile AccessCheckWord::Answer(const std::string& operands)
{
    std::string_view rest = operands;
    const std::string user = TakeOperand(rest);
    const std::string kind = TakeOperand(rest);
    const std::optional<std::string> group = control::UnquotedName(std::string(rest));
    if (user.empty() || (kind != control::Read && kind != control::Change) || !group)
    {
        throw osa::Exception("usage: access-check USER read|change GROUP");
    }
    const std::optional<ClientIdentity> identity = IdentityOf(user, _users);
    if (!identity)
    {
        throw osa::Exception("%.*s'%s'", static_cast<int>(control::UnknownUser.size()), control::UnknownUser.data(),
                             user.c_str());
    }
    const AccessDecision decision =
        _control.Explain(*identity, kind == control::Read ? AccessKind::Read : AccessKind::Change, *group);
    core::IniFile answer;
    answer.SetInt(AnswerGroup, "allowed", decision.isAllowed ? 1 : 0);
    answer.SetValue(AnswerGroup, "reason", ReasonText(decision.reason));
    if (!decision.rule.empty())
    {
        answer.SetValue(AnswerGroup, "rule", decision.rule);
        answer.SetValue(AnswerGroup, "file", decision.file);
        answer.SetValue(AnswerGroup, "line", std::to_string(decision.line));
    }
    return answer;
}

core::IniFile AccessReloadWord::Answer(const std::string& operands)
{
    CheckStandsAlone(control::AccessReload, operands);
    if (_filesAndFolders.empty())
    {
        throw osa::Exception("the server was started without --access: there are no rules to read");
    }
    const AccessRulesOutcome outcome = AccessRulesReader(_users).Read(_filesAndFolders);
    if (!outcome.pRules)
    {
        throw osa::Exception("the rules before stay in force: %s%s", outcome.mistakes.front().c_str(),
                             outcome.mistakes.size() > 1 ? ", and more; --check finds them all" : "");
    }
    core::Logger* const pLogger = core::Logger::GetLogger("AccessControl");
    core::IniFile answer;
    answer.SetValue(AnswerGroup, "rules", std::to_string(outcome.pRules->size()));
    for (std::size_t index = 0; index < outcome.warnings.size(); ++index)
    {
        pLogger->Warning("%s", outcome.warnings[index].c_str());
        answer.SetValue(AnswerGroup, "warning." + std::to_string(index + 1), outcome.warnings[index]);
    }
    _control.Replace(outcome.pRules);
    pLogger->Information("%zu access rules are in force", outcome.pRules->size());
    _control.AwaitNewRules();
    return answer;
}

}  // namespace korlo::daemon

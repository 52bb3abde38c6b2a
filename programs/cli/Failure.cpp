#include "Failure.h"

namespace korlo::settings::cli
{

std::string Quoted(std::string_view text)
{
    return '\'' + std::string(text) + '\'';
}

std::string Reason(const std::string& text)
{
    std::string reason = text;
    if (reason.size() > 1 && reason[0] >= 'A' && reason[0] <= 'Z' && reason[1] >= 'a' && reason[1] <= 'z')
    {
        reason[0] = static_cast<char>(reason[0] - 'A' + 'a');
    }
    return reason;
}

}  // namespace korlo::settings::cli

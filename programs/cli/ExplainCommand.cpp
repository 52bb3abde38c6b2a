#include <algorithm>
#include <optional>
#include <string_view>

#include "Commands.h"
#include "ControlAnswer.h"
#include "ControlConnection.h"
#include "ControlProtocol.h"
#include "IniText.h"
#include "Json.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "Table.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;
using nlohmann::json;

constexpr std::size_t MostShown = 40;  // bytes of a value in a line for people

/// A place that gives the key a value.
struct Source
{
    std::optional<std::string> layer;
    std::optional<std::string> file;
    std::optional<int> line;
    std::optional<std::string> value;
    std::string why;  // it counts or not
};

struct Explanation
{
    std::string group;
    std::string key;
    Source source;                   // of the value; nothing in it where there is none
    std::vector<Source> candidates;  // in the order in which they are loaded
    std::size_t winner = 0;          // the number of the candidate that counts, from 1; 0 for none
};

std::optional<std::string> Said(const IniFile& answer, const std::string& group, const std::string& key)
{
    return answer.HasValue(group, key) ? std::optional(answer.GetValue(group, key)) : std::nullopt;
}

std::optional<int> SaidNumber(const IniFile& answer, const std::string& group, const std::string& key)
{
    const std::optional<std::string> text = Said(answer, group, key);
    return text ? std::optional(NumberOf(key, *text)) : std::nullopt;
}

Source SourceIn(const IniFile& answer, const std::string& group)
{
    return {Said(answer, group, "layer"), Said(answer, group, "file"), SaidNumber(answer, group, "line"),
            Said(answer, group, "value"), Said(answer, group, "why").value_or("")};
}

Explanation ExplanationIn(const IniFile& answer)
{
    const char* const about = control::ExplainGroup;
    const std::optional<std::string> group = Said(answer, about, "group");
    const std::optional<std::string> key = Said(answer, about, "key");
    if (!group || !key)
    {
        throw MakesNoSense("it does not say what it explains");
    }
    Explanation explanation = {*group, *key, SourceIn(answer, about), {}, 0};
    for (const std::string& candidate : NumberedGroups(answer, control::CandidateGroup))
    {
        explanation.candidates.push_back(SourceIn(answer, candidate));
    }
    const int winner = SaidNumber(answer, about, "candidate").value_or(0);
    if (winner < 0 || static_cast<std::size_t>(winner) > explanation.candidates.size())
    {
        throw MakesNoSense("there is no candidate " + std::to_string(winner));
    }
    explanation.winner = static_cast<std::size_t>(winner);
    return explanation;
}

/// A value as INI text has it, its beginning if it is long.
std::string ShownValue(const std::string& value)
{
    std::size_t end = std::min(value.size(), MostShown);
    while (end < value.size() && end > 0 && (static_cast<unsigned char>(value[end]) & 0xC0U) == 0x80U)
    {
        --end;  // not within a character
    }
    const std::string token = NameToken(value.substr(0, end));
    return end < value.size() ? token + "... (" + std::to_string(value.size()) + " bytes)" : token;
}

TableRow RowOf(const Source& source)
{
    std::string place = source.file ? Escaped(*source.file) : "-";
    place += source.line ? ':' + std::to_string(*source.line) : "";
    return {source.layer.value_or("-"), place, source.value ? ShownValue(*source.value) : "-", Escaped(source.why)};
}

/// What counts first, then the others, the one that was loaded last before those that it overrides.
std::string TextOf(const Explanation& explanation)
{
    std::vector<TableRow> rows;
    for (std::size_t number = explanation.candidates.size(); number > 0; --number)
    {
        const bool isWinner = number == explanation.winner;
        rows.insert(isWinner ? rows.begin() : rows.end(), RowOf(explanation.candidates[number - 1]));
    }
    const std::string name = '[' + NameToken(explanation.group) + ']' + NameToken(explanation.key);
    if (explanation.source.value)
    {
        return name + '=' + ShownValue(*explanation.source.value) + '\n' + TableOf(rows, "  ");
    }
    return name + " has no value\n" + (rows.empty() ? "  no file and no client gives it one\n" : TableOf(rows, "  "));
}

template <typename Content>
json ValueOrNull(const std::optional<Content>& content)
{
    return content ? json(*content) : json();
}

json ValueOf(const Source& source)
{
    return {{"layer", ValueOrNull(source.layer)},
            {"file", ValueOrNull(source.file)},
            {"line", ValueOrNull(source.line)},
            {"value", ValueOrNull(source.value)}};
}

/// `{"group", "key", "value", "layer", "file", "line", "candidates": [{"layer", "file", "line", "value", "why"}]}`;
/// null for what there is not.
json ValueOf(const Explanation& explanation)
{
    json value = ValueOf(explanation.source);
    value.update({{"group", explanation.group}, {"key", explanation.key}, {"candidates", json::array()}});
    for (const Source& candidate : explanation.candidates)
    {
        json& entry = value["candidates"].emplace_back(ValueOf(candidate));
        entry["why"] = candidate.why;
    }
    return value;
}

}  // namespace

ExitStatus RunExplain(const Invocation& invocation)
{
    const std::vector<std::string>& operands = invocation.operands;
    const SettingLocator locator =
        operands.size() == 1 ? ParseLocator(operands[0]) : SettingLocator(operands[0], operands[1]);
    const std::string request = std::string(control::Explain) + ' ' + control::QuotedLocator(locator);
    try
    {
        const Explanation explanation = ExplanationIn(ControlConnection(invocation.control).Ask(request));
        WriteOutput(invocation.asJson ? JsonOf(ValueOf(explanation)) : TextOf(explanation));
        return explanation.source.value ? StatusDone : StatusNo;
    }
    catch (const ControlError& error)
    {
        throw Failure(StatusUnusable, "the server failed to answer: " + Reason(error.what()));
    }
}

}  // namespace korlo::settings::cli

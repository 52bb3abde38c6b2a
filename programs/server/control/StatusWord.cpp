#include "control/StatusWord.h"

#include <array>
#include <cstdio>
#include <map>
#include <utility>

#include <unistd.h>

#include "ControlProtocol.h"
#include "control/UtcTime.h"

namespace korlo::daemon
{
namespace
{

template <typename Number>
void Set(core::IniFile& answer, const std::string& group, const char* key, Number number)
{
    answer.SetValue(group, key, std::to_string(number));
}

/// With three decimals.
std::string SecondsText(std::chrono::milliseconds duration)
{
    constexpr long long perSecond = 1000;
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%lld.%03lld", static_cast<long long>(duration.count()) / perSecond,
                  static_cast<long long>(duration.count()) % perSecond);
    return text.data();
}

}  // namespace

core::IniFile StatusWord::Answer(const std::string& operands)
{
    CheckStandsAlone(control::Status, operands);
    core::IniFile answer;
    AddServer(answer);
    AddStore(answer);
    AddSaves(answer);
    AddClients(answer);
    AddLimits(answer);
    AddDoors(answer);
    AddFiles(answer);
    return answer;
}

void StatusWord::AddServer(core::IniFile& answer) const
{
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - _begin);
    answer.SetValue("Server", "version", KORLO_VERSION);
    Set(answer, "Server", "pid", ::getpid());
    answer.SetValue("Server", "started", UtcText(_started));
    Set(answer, "Server", "uptime", uptime.count());
}

void StatusWord::AddStore(core::IniFile& answer) const
{
    const settings::server::StoreFigures figures = _sources.store.GetFigures();
    Set(answer, "Store", "groups", figures.groups);
    Set(answer, "Store", "keys", figures.keys);
    Set(answer, "Store", "bytes", figures.bytes);
    Set(answer, "Store", "changes", figures.changes);
}

void StatusWord::AddSaves(core::IniFile& answer) const
{
    const SaveRecord::Figures figures = _sources.files.GetRecord().GetFigures();
    Set(answer, "Saves", "delay", _sources.saveDelayMs);
    Set(answer, "Saves", "saves", figures.saves);
    Set(answer, "Saves", "skipped", figures.skipped);
    Set(answer, "Saves", "failed", figures.failed);
    Set(answer, "Saves", "unsaved", figures.isUnsaved ? 1 : 0);
    Set(answer, "Saves", "waiting", _sources.pDelayed != nullptr && _sources.pDelayed->IsWaiting() ? 1 : 0);
    if (_sources.files.GetSaveBy() == SaveBy::Appending)
    {
        Set(answer, "Saves", "log", figures.log.bytes);
        Set(answer, "Saves", "logLimit", figures.log.limit);
        Set(answer, "Saves", "folds", figures.log.folds);
    }
    if (figures.failed > 0)
    {
        answer.SetValue("Saves", "lastFailure", figures.lastFailure);
        answer.SetValue("Saves", "lastFailureTime", UtcText(figures.lastFailureTime));
    }
    if (figures.running)
    {
        answer.SetValue("Saves", "running", SecondsText(*figures.running));
    }
}

void StatusWord::AddClients(core::IniFile& answer) const
{
    const SettingsServer::ClientCounts counts = _sources.server.GetClientCounts();
    Set(answer, "Clients", "now", counts.now);
    Set(answer, "Clients", "most", counts.most);
    Set(answer, "Clients", "refused", counts.refused);
    Set(answer, "Clients", "dropped", counts.dropped);
}

void StatusWord::AddLimits(core::IniFile& answer) const
{
    Set(answer, "Limits", "maxClients", _sources.limits.maxClients);
    Set(answer, "Limits", "maxBacklog", _sources.limits.maxBacklog);
    Set(answer, "Limits", "maxMessage", _sources.limits.maxMessage);
}

void StatusWord::AddDoors(core::IniFile& answer) const
{
    for (std::size_t index = 0; index < _doors.size(); ++index)
    {
        const std::string group = "Door/" + std::to_string(index + 1);
        answer.SetValue(group, "address", _doors[index].address);
        answer.SetValue(group, "kind", _doors[index].kind);
    }
}

void StatusWord::AddFiles(core::IniFile& answer) const
{
    std::size_t number = 0;
    const auto add = [&answer, &number](const std::string& kind, const std::string& path) {
        std::string group = "File/" + std::to_string(++number);
        answer.SetValue(group, "kind", kind);
        answer.SetValue(group, "path", path);
        return group;
    };
    for (const LoadedFile& file : _sources.loaded.GetFiles())
    {
        const std::string group = add(file.kind, file.path);
        Set(answer, group, "groups", file.groups);
        Set(answer, group, "keys", file.keys);
    }
    std::map<std::string, std::size_t> rules;
    if (const std::shared_ptr<const AccessRules> pRules = _sources.access.GetRules())
    {
        for (const AccessRule& rule : *pRules)
        {
            ++rules[rule.file];
        }
    }
    for (const auto& [path, count] : rules)
    {
        Set(answer, add("access", path), "rules", count);
    }
}

}  // namespace korlo::daemon

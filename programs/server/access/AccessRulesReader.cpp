#include "access/AccessRulesReader.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "SettingsFiles.h"
#include "access/GroupPatterns.h"
#include "korlo/core/IniReader.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

constexpr std::string_view GroupPrefix = "Access/";

/// The items between commas, without the white space around them. A text of white space alone has none.
std::vector<std::string> ItemsOf(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    std::vector<std::string> items;
    for (std::size_t comma = 0; comma != std::string_view::npos;)
    {
        comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        text.remove_prefix(std::min(item.size() + 1, text.size()));
        item.remove_prefix(std::min(item.find_first_not_of(blanks), item.size()));
        item = item.substr(0, item.find_last_not_of(blanks) + 1);
        items.emplace_back(item);
    }
    return items == std::vector<std::string>{""} ? std::vector<std::string>() : items;
}

/// Messages about one set of rules; a million bad lines fill neither memory nor the log.
class Messages
{
public:
    void Add(std::string message)
    {
        if (++_count <= AccessRulesReader::MostMessages)
        {
            _messages.push_back(std::move(message));
        }
    }

    bool IsEmpty() const { return _count == 0; }

    std::vector<std::string> Take()
    {
        if (_count > AccessRulesReader::MostMessages)
        {
            _messages.push_back("and " + std::to_string(_count - AccessRulesReader::MostMessages) + " more");
        }
        return std::move(_messages);
    }

private:
    std::vector<std::string> _messages;
    std::size_t _count = 0;
};

/// Builds rules from what the files hold, one file after the other.
class Collector : public core::IIniObserver
{
public:
    explicit Collector(const IUserDatabase& users) : _users(users) {}

    void ReadFile(const std::string& file);
    void AddMistake(const std::string& message) { _mistakes.Add(message); }
    AccessRulesOutcome Take(const std::vector<std::string>& filesAndFolders);

    void OnGroup(std::size_t line, std::string_view name) override;
    void OnValue(std::size_t line, std::string_view key, std::string_view value) override;
    void OnBadLine(std::size_t line, const char* reason) override { AddMistakeAt(line, reason); }

private:
    /// A key as it stands in the file.
    struct Value
    {
        std::size_t line = 0;  // 0 where the key is not given
        std::vector<std::string> items;
    };

    enum Key : unsigned int
    {
        User,
        Group,
        Peer,
        Read,
        Change,
        Deny,
        KeyCount
    };
    static constexpr std::array<std::string_view, KeyCount> KeyNames = {"user", "group",  "peer",
                                                                        "read", "change", "deny"};

    void AddMistakeAt(std::size_t line, const std::string& what) { _mistakes.Add(At(line) + what); }
    std::string At(std::size_t line) const { return _file + ':' + std::to_string(line) + ": "; }
    void FinishRule();
    void TakePeers(AccessRule& rule);
    void TakeUsersAndGroups(AccessRule& rule);
    AccessPatterns PatternsOf(Key key) const;
    template <typename Id>
    std::vector<Id> IdsOf(Key key, Id overflow, std::optional<Id> (*find)(const std::string&, const IUserDatabase&));
    void ReportUnknown(Key key, const std::string& item, const std::string& what);

    const IUserDatabase& _users;
    std::string _file;
    std::optional<AccessRule> _rule;  // the one that is being read; none below a group that is no rule
    std::array<Value, KeyCount> _values;
    std::map<std::string, std::string, std::less<>> _places;  // of each rule: FILE:LINE
    AccessRules _rules;
    Messages _mistakes;
    Messages _warnings;
};

void Collector::ReadFile(const std::string& file)
{
    _file = file;
    try
    {
        core::IniReader::ReadFile(file.c_str(), *this, AccessRulesReader::MostBytesOfAFile);
    }
    catch (const osa::Exception& exception)
    {
        _mistakes.Add(exception.what());
    }
    FinishRule();
}

AccessRulesOutcome Collector::Take(const std::vector<std::string>& filesAndFolders)
{
    if (_rules.empty() && _mistakes.IsEmpty())
    {
        std::string places;
        for (const std::string& path : filesAndFolders)
        {
            places += (places.empty() ? "'" : ", '") + path + '\'';
        }
        _mistakes.Add("There is no access rule in " + places + ": without one nobody could do anything");
    }
    AccessRulesOutcome outcome;
    outcome.pRules = _mistakes.IsEmpty() ? std::make_shared<const AccessRules>(std::move(_rules)) : nullptr;
    outcome.mistakes = _mistakes.Take();
    outcome.warnings = _warnings.Take();
    return outcome;
}

void Collector::OnGroup(std::size_t line, std::string_view name)
{
    FinishRule();
    const std::string group(name);
    if (!group.starts_with(GroupPrefix) || group.size() == GroupPrefix.size())
    {
        AddMistakeAt(line, "group '" + group + "' is no access rule: the group of a rule is [Access/NAME]");
        return;
    }
    const auto [place, isNew] = _places.try_emplace(group, _file + ':' + std::to_string(line));
    if (!isNew)
    {
        AddMistakeAt(line, "rule '" + group + "' stands at " + place->second + " already");
    }
    // A rule that comes again is looked through for mistakes too.
    _rule.emplace();
    _rule->name = group.substr(GroupPrefix.size());
    _rule->file = _file;
    _rule->line = line;
}

void Collector::OnValue(std::size_t line, std::string_view key, std::string_view value)
{
    if (!_rule)
    {
        return;
    }
    const auto* const pName = std::find(KeyNames.begin(), KeyNames.end(), key);
    if (pName == KeyNames.end())
    {
        AddMistakeAt(line,
                     "key '" + std::string(key) + "' is unknown: a rule has user, group, peer, read, change and deny");
        return;
    }
    const auto index = static_cast<Key>(pName - KeyNames.begin());
    Value& target = _values[index];
    if (target.line != 0)
    {
        AddMistakeAt(line, "key '" + std::string(key) + "' stands in line " + std::to_string(target.line) +
                               " already: separate several entries by commas");
        return;
    }
    target = {line, ItemsOf(value)};
    // Whoever writes `user =` means nobody, or forgot something; to take it for everybody would be the worst guess.
    if (index <= Peer && target.items.empty())
    {
        AddMistakeAt(line, "key '" + std::string(key) + "' names nobody: leave it out to mean everybody");
    }
    if (std::find(target.items.begin(), target.items.end(), "") != target.items.end())
    {
        AddMistakeAt(line, "key '" + std::string(key) + "' has nothing between two commas");
    }
}

void Collector::FinishRule()
{
    if (_rule)
    {
        TakePeers(*_rule);
        TakeUsersAndGroups(*_rule);
        _rule->read = PatternsOf(Read);
        _rule->change = PatternsOf(Change);
        _rule->deny = PatternsOf(Deny);
        if (_rule->read.patterns.empty() && _rule->change.patterns.empty() && _rule->deny.patterns.empty())
        {
            AddMistakeAt(_rule->line, "rule 'Access/" + _rule->name + "' says nothing: it needs read, change or deny");
        }
        _rules.push_back(std::move(*_rule));
        _rule.reset();
    }
    _values = {};
}

void Collector::TakePeers(AccessRule& rule)
{
    const Value& peers = _values[Peer];
    if (peers.line == 0)
    {
        return;
    }
    rule.isAboutTcp = false;
    rule.isAboutUnix = false;
    for (const std::string& peer : peers.items)
    {
        if (peer == "tcp")
        {
            rule.isAboutTcp = true;
        }
        else if (peer == "unix")
        {
            rule.isAboutUnix = true;
        }
        else if (!peer.empty())
        {
            AddMistakeAt(peers.line, "peer '" + peer + "' is unknown: it is tcp or unix");
        }
    }
}

void Collector::TakeUsersAndGroups(AccessRule& rule)
{
    rule.isAboutEverybody = _values[User].line == 0 && _values[Group].line == 0;
    rule.users = IdsOf(User, _users.GetOverflowUser(), UserIdOf);
    rule.groups = IdsOf(Group, _users.GetOverflowGroup(), GroupIdOf);
}

AccessPatterns Collector::PatternsOf(Key key) const
{
    AccessPatterns patterns;
    patterns.line = _values[key].line;
    for (const std::string& item : _values[key].items)
    {
        patterns.patterns.push_back(WithoutRepeatedStars(item));
    }
    return patterns;
}

template <typename Id>
std::vector<Id> Collector::IdsOf(Key key, Id overflow,
                                 std::optional<Id> (*find)(const std::string&, const IUserDatabase&))
{
    std::vector<Id> ids;
    for (const std::string& item : _values[key].items)
    {
        if (item.empty())
        {
            continue;  // told of already
        }
        const std::optional<Id> id = find(item, _users);
        if (!id)
        {
            ReportUnknown(key, item, "is unknown");
        }
        else if (*id == overflow)
        {
            ReportUnknown(key, item, "is what the kernel shows for an unknown one");
        }
        else
        {
            ids.push_back(*id);
        }
    }
    return ids;
}

/// A removed account must not stop a device, but what was denied to it must not be allowed in silence either.
void Collector::ReportUnknown(Key key, const std::string& item, const std::string& what)
{
    const std::string text = std::string(KeyNames[key]) + " '" + item + "' " + what;
    if (_values[Deny].items.empty())
    {
        _warnings.Add(At(_values[key].line) + text + ", and fits nobody");
    }
    else
    {
        AddMistakeAt(_values[key].line, text + ", so the rule cannot deny it anything");
    }
}

}  // namespace

AccessRulesOutcome AccessRulesReader::Read(const std::vector<std::string>& filesAndFolders) const
{
    Collector collector(_users);
    for (const std::string& path : filesAndFolders)
    {
        try
        {
            for (const std::string& file : SettingsFiles({path}).Find(SettingsFiles::Listed))
            {
                collector.ReadFile(file);
            }
        }
        catch (const osa::Exception& exception)
        {
            collector.AddMistake(exception.what());
        }
    }
    return collector.Take(filesAndFolders);
}

}  // namespace korlo::daemon

#include "explain/SettingExplainer.h"

#include <algorithm>
#include <string>
#include <utility>

#include "korlo/core/IniFile.h"
#include "korlo/core/StringUtil.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{
namespace
{

using core::IniFile;
using settings::SettingLocator;

constexpr const char* FromNextStart = "; it counts from the next start on";

/// What the store holds of one key, at one moment.
struct StoreView
{
    std::optional<std::string> now;
    std::optional<std::string> user;          // in the user layer
    std::optional<RecordEntry> erasingEntry;  // the first entry of the record that selects the group; no line

    bool operator==(const StoreView& other) const
    {
        return now == other.now && user == other.user && erasingEntry.has_value() == other.erasingEntry.has_value();
    }
};

std::optional<std::string> ValueIn(const IniFile& document, const SettingLocator& locator)
{
    return document.HasValue(locator.group, locator.key) ? std::optional(document.GetValue(locator.group, locator.key))
                                                         : std::nullopt;
}

StoreView ViewOf(const settings::server::SettingsManager& store, const SettingLocator& locator)
{
    IniFile settings;
    IniFile user;
    store.GetLayers({locator.group, RecordGroup}, settings, user);
    StoreView view = {ValueIn(settings, locator), ValueIn(user, locator), std::nullopt};
    if (const auto record = std::as_const(user).Find(RecordGroup); record != std::as_const(user).end())
    {
        for (const auto& [key, entry] : record->second)
        {
            if (core::StringUtil::MatchesPattern(entry, locator.group))
            {
                view.erasingEntry = RecordEntry{0, key, entry};
                break;
            }
        }
    }
    return view;
}

/// Where it stands, for the `why` of another.
std::string PlaceOf(const Occurrence& occurrence)
{
    if (occurrence.file)
    {
        return *occurrence.file + ':' + std::to_string(occurrence.line);
    }
    switch (occurrence.layer)
    {
    case Layer::User:
        return "the user layer, which is not saved yet";
    case Layer::Unsaved:
        return "a change that was not persisted";
    default:
        return "a file that was changed since";
    }
}

/// Finds out which occurrence gave the store its value, and words why the others did not.
///
///     why is empty            the occurrence is alive: what no other overrides gives the value
///     alive, above the winner  a client, or somebody at the files, has changed something since the load
///     alive, below the winner  overridden, each by the next one that is alive
///
/// Thread safety: none of its own; lives on the stack of who asks.
class Judge
{
public:
    Judge(const SettingLocator& locator, const StoreView& view, KeySources sources)
        : _view(view),
          _sources(std::move(sources)),
          _isRestricted(settings::server::GroupDiscriminator::IsRestrictedGroup(locator.group))
    {
    }

    Explanation Decide()
    {
        CompareUserLayer();
        for (std::size_t index = 0; index < All().size(); ++index)
        {
            if (All()[index].why.empty())
            {
                _alive.push_back(index);
            }
        }
        FindWinner();
        for (std::size_t position = 0; position < _alive.size(); ++position)
        {
            Occurrence& occurrence = All()[_alive[position]];
            if (_alive[position] == _winner)
            {
                occurrence.why = WhyItCounts(occurrence);
            }
            else if (_winner && _alive[position] < *_winner)
            {
                occurrence.why = WhyOverridden(occurrence, All()[_alive[position + 1]]);
            }
            else
            {
                occurrence.why = WhyNotNow(occurrence);
            }
        }
        return {std::move(_sources.occurrences), _winner};
    }

private:
    std::vector<Occurrence>& All() { return _sources.occurrences; }

    /// The user layer is what the store holds: the file may be behind, or have been changed by somebody.
    void CompareUserLayer()
    {
        if (_isRestricted)
        {
            return;
        }
        const auto isUser = [](const Occurrence& o) { return o.layer == Layer::User && o.value && o.why.empty(); };
        const auto last = std::find_if(All().rbegin(), All().rend(), isUser);
        if (last != All().rend() && last->value == _view.user)
        {
            return;
        }
        for (Occurrence& occurrence : All())
        {
            if (isUser(occurrence))
            {
                occurrence.why = std::string("not in the store, which holds ") +
                                 (_view.user ? "another value" : "none") +
                                 ": a save is due or has failed, or somebody changed the file";
            }
        }
        if (_view.user)
        {
            const auto above = std::ranges::find_if(All(), [](const Occurrence& o) { return o.layer > Layer::User; });
            All().insert(above, {Layer::User, std::nullopt, 0, _view.user, ""});
        }
    }

    /// From the top down: a load would take the uppermost that is alive, and what else may have happened since shows in
    /// what the value is equal to.
    void FindWinner()
    {
        if (!_view.now)
        {
            return;
        }
        // Whether a layer may have given the value: what lies below an occurrence that was loaded for certain cannot.
        bool mayBeRestricted = true;
        bool mayBeUser = true;
        bool mayBeDefault = true;
        for (std::size_t left = _alive.size(); left > 0; --left)
        {
            const std::size_t place = _alive[left - 1];
            const Occurrence& occurrence = All()[place];
            bool& mayBe = occurrence.layer == Layer::Restricted ? mayBeRestricted
                          : occurrence.layer == Layer::User     ? mayBeUser
                                                                : mayBeDefault;
            if (mayBe && occurrence.value == _view.now)
            {
                _winner = place;
                return;
            }
            if (!occurrence.isChanged)
            {
                mayBe = false;
                mayBeDefault = false;
            }
        }
        AddUnexplained();
    }

    /// The value that the files do not give.
    void AddUnexplained()
    {
        Occurrence unexplained = {Layer::Unsaved, std::nullopt, 0, _view.now, "", false};
        _changedFile = ChangedFileOf(Layer::Restricted, _sources.changedRestricted, _isRestricted);
        if (_changedFile)
        {
            unexplained.layer = Layer::Restricted;
        }
        else if (!_isRestricted && !_view.user && !_view.erasingEntry)
        {
            _changedFile = ChangedFileOf(Layer::Default, _sources.changedDefaults, true);
            unexplained.layer = _changedFile ? Layer::Default : Layer::Unsaved;
        }
        _winner = All().size();
        _alive.push_back(*_winner);
        All().push_back(std::move(unexplained));
    }

    /// The file of the layer that may have held the value when it was loaded: that of the uppermost occurrence, if it
    /// is changed.
    /// @param otherwise whether any changed file will do where the key occurs in none.
    std::optional<std::string> ChangedFileOf(Layer layer, const std::optional<std::string>& anyChanged, bool otherwise)
    {
        const auto top = std::find_if(_alive.rbegin(), _alive.rend(),
                                      [&](std::size_t index) { return All()[index].layer == layer; });
        if (top == _alive.rend())
        {
            return otherwise ? anyChanged : std::nullopt;
        }
        return All()[*top].isChanged ? All()[*top].file : std::nullopt;
    }

    std::string WhyItCounts(const Occurrence& occurrence)
    {
        if (occurrence.layer == Layer::Unsaved)
        {
            return "it counts, and is gone at the next start: it was changed without persisting";
        }
        if (!occurrence.file && occurrence.layer == Layer::User)
        {
            return "it counts; the user file does not hold it: a save is due or has failed, or somebody changed the "
                   "file";
        }
        if (!occurrence.file)
        {
            return "it counts: " + *_changedFile +
                   " held it and was changed since it was loaded, or a client changed it without persisting";
        }
        if (occurrence.layer == Layer::Default && _view.erasingEntry)
        {
            return "it counts until the next start; then it is " + Erased();
        }
        if (occurrence.layer == Layer::User && IsDefault(occurrence))
        {
            return "it counts; it is the default, too, of which a restore leaves such a copy";
        }
        return "it counts";
    }

    /// True when it has the value of the default that would count without it.
    bool IsDefault(const Occurrence& occurrence)
    {
        const auto last = std::find_if(_alive.rbegin(), _alive.rend(), [this](std::size_t index) {
            return All()[index].layer == Layer::Default && All()[index].file;
        });
        return last != _alive.rend() && All()[*last].value == occurrence.value;
    }

    std::string WhyOverridden(const Occurrence& occurrence, const Occurrence& next) const
    {
        if (occurrence.layer == Layer::Default && _view.erasingEntry)
        {
            return Erased();
        }
        if (occurrence.isChanged && !next.file && next.layer != Layer::User && next.layer != Layer::Unsaved)
        {
            return std::string("the file was changed since it was loaded") + FromNextStart;
        }
        return "overridden by " + PlaceOf(next);
    }

    /// Nothing overrides it, and the store holds something else, or nothing.
    std::string WhyNotNow(const Occurrence& occurrence) const
    {
        if (occurrence.layer == Layer::Default && _view.erasingEntry)
        {
            return Erased();
        }
        if (occurrence.layer == Layer::User)
        {
            return "not taken: the record of erased groups is kept out of the settings";
        }
        if (occurrence.isChanged)
        {
            return std::string("the file was changed since it was loaded") + FromNextStart;
        }
        return std::string("a client has ") + (_view.now ? "changed" : "removed") + " it since it was loaded" +
               FromNextStart;
    }

    std::string Erased() const
    {
        const RecordEntry& entry = *_view.erasingEntry;
        std::string text = "erased: the record of erased groups has " + entry.key + '=' + entry.value;
        const auto saved = std::ranges::find_if(_sources.record, [&entry](const RecordEntry& other) {
            return other.key == entry.key && other.value == entry.value;
        });
        if (saved != _sources.record.end())
        {
            text += " in line " + std::to_string(saved->line) + " of " +
                    (saved->log.empty() ? "the user file" : saved->log);
        }
        return text;
    }

    const StoreView& _view;
    KeySources _sources;
    const bool _isRestricted;
    std::vector<std::size_t> _alive;  // indices of occurrences, ascending
    std::optional<std::size_t> _winner;
    std::optional<std::string> _changedFile;  // that may have held a value which the files do not give
};

}  // namespace

Explanation SettingExplainer::Explain(const SettingLocator& locator) const
{
    constexpr int mostAttempts = 4;
    StoreView view = ViewOf(_store, locator);
    for (int attempt = 1;; ++attempt)
    {
        KeySources sources = FindKeySources(_files, locator);
        StoreView after = ViewOf(_store, locator);
        if (after == view || attempt == mostAttempts)
        {
            return Judge(locator, after, std::move(sources)).Decide();
        }
        view = std::move(after);
    }
}

}  // namespace korlo::daemon

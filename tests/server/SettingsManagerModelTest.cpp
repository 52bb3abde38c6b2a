// The store beside a naive model of it, over random sequences of operations.
#include "settings/server/SettingsManager.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"
#include "support/Rounds.h"
#include "support/Selection.h"
#include "support/StoreModel.h"
#include "support/StoreScenario.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

std::vector<IniFile> ToInis(const std::vector<Groups>& documents)
{
    std::vector<IniFile> inis;
    for (const Groups& document : documents)
    {
        inis.push_back(ToIni(document));
    }
    return inis;
}

/// Takes groups out of every document.
class ExcludingFilter : public IIncludeFilter
{
public:
    explicit ExcludingFilter(GroupNameCollection excluded) : _excluded(std::move(excluded)) {}

    void FilterIni(IniFile& ini) override
    {
        for (const std::string& name : _excluded)
        {
            ini.RemoveGroup(name);
        }
    }

private:
    const GroupNameCollection _excluded;
};

/// Says of each load of restricted settings that it happened.
class CountingRestrictedLoader : public RecordingRestrictedLoader
{
public:
    explicit CountingRestrictedLoader(std::vector<std::string>& calls) : _calls(calls) {}

    void LoadRestrictedSettings(SettingsCombiner& combiner) override
    {
        _calls.push_back("load restricted settings");
        RecordingRestrictedLoader::LoadRestrictedSettings(combiner);
    }

private:
    std::vector<std::string>& _calls;
};

/// What one subscriber should have heard since the store was loaded.
class ModelSubscriber
{
public:
    explicit ModelSubscriber(GroupNameCollection entries) : _entries(std::move(entries)) {}

    void Hear(const StoreModel::Announcement& announcement)
    {
        GroupNameCollection heard;
        for (const std::string& name : announcement.groups)
        {
            if (StoreModel::IsSelected(_entries, name))
            {
                heard.insert(name);
            }
        }
        if (!heard.empty())
        {
            _changes.push_back({heard, ToIni(announcement.settings)});
        }
    }

    const std::vector<Change>& GetChanges() const { return _changes; }
    const GroupNameCollection& GetEntries() const { return _entries; }
    void Forget() { _changes.clear(); }

private:
    const GroupNameCollection _entries;
    std::vector<Change> _changes;
};

/// A store and its model side by side. Says what they do not agree on.
class Comparison
{
public:
    /// @param tellsChanges whether the store saves by telling what was changed.
    Comparison(const StoreScenario& scenario, bool tellsChanges)
        : _tellsChanges(tellsChanges),
          _filter(scenario.excluded),
          _loader(_calls),
          _model(scenario.defaults, scenario.restricted),
          _selective(scenario.subscription)
    {
        _persister.defaults = ToInis(scenario.defaults);
        _persister.user = ToIni(scenario.user);
        _persister.beforeLoadDefaults = [this] { _calls.push_back("load defaults"); };
        _persister.beforeLoadUser = [this] { _calls.push_back("load user settings"); };
        _persister.beforeSave = [this] {
            _calls.push_back("save");
            if (_saveFails)
            {
                throw osa::Exception("the disk is full");
            }
        };
        _loader.documents = ToInis(scenario.restricted);
        _model.Exclude(scenario.excluded);
        _model.saved = scenario.user;
        Reload();
    }

    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    /// Carries the operation out on both.
    void Do(const StoreOperation& operation)
    {
        _saveFails = operation.saveFails;
        try
        {
            DoOnStore(operation);
            _hasThrown = false;
        }
        catch (const osa::Exception&)
        {
            _hasThrown = true;
        }
        DoOnModel(operation);
    }

    /// Empty when both agree.
    std::string Difference(const StoreOperation& operation) const
    {
        std::string text;
        text += Unless(Dump(&SettingsManager::DumpAllSettings) == TextOf(ToIni(_model.settings)), "the settings");
        text += Unless(Dump(&SettingsManager::DumpUserSettings) == TextOf(ToIni(_model.user)), "the user layer");
        text += Unless(Read({"*"}) == _model.settings, "the groups read by '*'");
        text += Unless(FiguresAreRight(), "how much the store says it holds");
        text += Unless(Read(operation.selection) == StoreModel::Selected(operation.selection, _model.settings),
                       "the groups that the operation selects");
        text += Unless(ToMap(_persister.user) == _model.saved, "what was saved");
        text += Unless(_calls == _model.calls, "the calls of the persister and the loader");
        text += Unless(_pEverything->GetChanges() == _all.GetChanges(), "what the subscriber of '*' heard");
        text += Unless(_pSelection->GetChanges() == _selective.GetChanges(), "what the selective subscriber heard");
        text += Unless(_hasThrown == _modelHasThrown, "whether the save failed");
        text += Unless(_hasMerged == _modelHasMerged, "the outcome of the test");
        return text;
    }

private:
    using DumpMethod = void (SettingsManager::*)(std::ostream&) const;

    static std::string Unless(bool agree, const std::string& what) { return agree ? "" : what + "; "; }

    std::string Dump(DumpMethod method) const
    {
        std::ostringstream out;
        (*_pStore.*method)(out);
        return out.str();
    }

    Groups Read(const GroupNameCollection& selection) const
    {
        IniFile read;
        _pStore->GetGroups(read, MatcherOf(selection));
        return ToMap(read);
    }

    bool FiguresAreRight() const
    {
        StoreFigures expected;
        for (const auto& [group, values] : _model.settings)
        {
            ++expected.groups;
            expected.bytes += group.size();
            for (const auto& [key, value] : values)
            {
                ++expected.keys;
                expected.bytes += key.size() + value.size();
            }
        }
        const StoreFigures figures = _pStore->GetFigures();
        return figures.groups == expected.groups && figures.keys == expected.keys && figures.bytes == expected.bytes;
    }

    void Reload()
    {
        _pStore = std::make_unique<SettingsManager>(&_persister, &_loader, &_filter, false);
        _pStore->SetChangePersister(_tellsChanges ? &_persister : nullptr);
        _pEverything = std::make_unique<RecordingCallback>();
        _pSelection = std::make_unique<RecordingCallback>();
        _pStore->Subscribe(_pEverything.get(), "*");
        _pStore->Subscribe(_pSelection.get(), _selective.GetEntries());
        _model.Load();
        _all.Forget();
        _selective.Forget();
    }

    void DoOnStore(const StoreOperation& operation)
    {
        switch (operation.kind)
        {
        case StoreOperation::Kind::Merge:
            return _pStore->MergeSettings(ToIni(operation.changes), operation.flags);
        case StoreOperation::Kind::TestAndMerge:
            _hasMerged = false;
            _hasMerged = _pStore->TestAndMerge(ToIni(operation.expected), ToIni(operation.changes));
            return;
        case StoreOperation::Kind::Overwrite:
            return _pStore->OverwriteSettings(operation.selection, ToIni(operation.changes));
        case StoreOperation::Kind::Restore:
            return _pStore->RestoreToDefaults(MatcherOf(operation.selection));
        case StoreOperation::Kind::Reload:
            return Reload();
        }
    }

    void DoOnModel(const StoreOperation& operation)
    {
        _modelHasThrown = false;
        switch (operation.kind)
        {
        case StoreOperation::Kind::Merge: {
            const bool persist = operation.flags % 2 == 0;
            return Expect(_model.Merge(operation.changes, persist, operation.saveFails));
        }
        case StoreOperation::Kind::TestAndMerge:
            _modelHasMerged = _model.Contains(operation.expected);
            if (_modelHasMerged)
            {
                Expect(_model.Merge(operation.changes, true, operation.saveFails));
                _modelHasMerged = !_modelHasThrown;
            }
            return;
        case StoreOperation::Kind::Overwrite:
            return Expect(_model.Overwrite(operation.selection, operation.changes, operation.saveFails));
        case StoreOperation::Kind::Restore:
            return Expect(_model.Restore(operation.selection, operation.saveFails));
        case StoreOperation::Kind::Reload:
            return;  // done with the store
        }
    }

    void Expect(const std::optional<StoreModel::Announcement>& announcement)
    {
        _modelHasThrown = !announcement;
        if (announcement)
        {
            _all.Hear(*announcement);
            _selective.Hear(*announcement);
        }
    }

    const bool _tellsChanges;
    std::vector<std::string> _calls;
    bool _saveFails = false;
    bool _hasThrown = false;
    bool _hasMerged = false;
    RecordingPersister _persister;
    ExcludingFilter _filter;
    CountingRestrictedLoader _loader;
    std::unique_ptr<RecordingCallback> _pEverything;
    std::unique_ptr<RecordingCallback> _pSelection;
    std::unique_ptr<SettingsManager> _pStore;

    StoreModel _model;
    ModelSubscriber _all{{"*"}};
    ModelSubscriber _selective;
    bool _modelHasThrown = false;
    bool _modelHasMerged = false;
};

/// Runs the scenario up to the first operation after which store and model differ; empty when they never do.
std::string FirstDifference(const StoreScenario& scenario, bool tellsChanges)
{
    Comparison comparison(scenario, tellsChanges);
    std::string difference = comparison.Difference({});
    for (std::size_t next = 0; next < scenario.operations.size() && difference.empty(); ++next)
    {
        comparison.Do(scenario.operations[next]);
        difference = comparison.Difference(scenario.operations[next]);
    }
    return difference;
}

std::string Report(unsigned int seed, const StoreScenario& scenario, bool tellsChanges)
{
    StoreScenarioShrinker shrinker(
        [&](const StoreScenario& candidate) { return !FirstDifference(candidate, tellsChanges).empty(); });
    const StoreScenario smallest = shrinker.Shrink(scenario);
    return "seed " + std::to_string(seed) + (tellsChanges ? ", telling changes" : "") +
           "; store and model differ in: " + FirstDifference(smallest, tellsChanges) + "the shortest way there:\n" +
           Describe(smallest);
}

TEST(SettingsManagerModelTest, AgreesWithANaiveModelOverRandomSequences)
{
    constexpr unsigned int sequences = Rounds(3000);
    for (unsigned int seed = 1; seed <= sequences; ++seed)
    {
        const StoreScenario scenario = StoreScenarioSource(seed).Make();
        const bool tellsChanges = seed % 2 == 0;  // one way or the other, as both would take twice as long
        if (!FirstDifference(scenario, tellsChanges).empty())
        {
            FAIL() << Report(seed, scenario, tellsChanges);
        }
    }
}

bool Holds(const StoreScenario& scenario, StoreOperation::Kind kind, const std::string& name)
{
    return std::any_of(scenario.operations.begin(), scenario.operations.end(), [&](const StoreOperation& operation) {
        return operation.kind == kind && (operation.changes.contains(name) || operation.selection.contains(name));
    });
}

/// A scenario with something of everything.
StoreScenario LargeScenario()
{
    StoreScenario scenario;
    for (unsigned int seed = 1; seed <= 20; ++seed)
    {
        const StoreScenario more = StoreScenarioSource(seed).Make();
        scenario.defaults.insert(scenario.defaults.end(), more.defaults.begin(), more.defaults.end());
        scenario.restricted.insert(scenario.restricted.end(), more.restricted.begin(), more.restricted.end());
        scenario.user.insert(more.user.begin(), more.user.end());
        scenario.excluded.insert(more.excluded.begin(), more.excluded.end());
        scenario.subscription.insert(more.subscription.begin(), more.subscription.end());
        scenario.operations.insert(scenario.operations.end(), more.operations.begin(), more.operations.end());
    }
    return scenario;
}

TEST(StoreScenarioShrinkerTest, KeepsWhatTheFailureNeedsAndNothingElse)
{
    StoreScenarioShrinker shrinker([](const StoreScenario& scenario) {
        return Holds(scenario, StoreOperation::Kind::Merge, "A") &&
               Holds(scenario, StoreOperation::Kind::Overwrite, "*") && !scenario.defaults.empty();
    });

    const std::string text = Describe(shrinker.Shrink(LargeScenario()));

    // Whichever of the two came first.
    const std::string document = "default document: nothing\n";
    const std::string merge = "merge, flags 0: [A]\n";
    const std::string overwrite = "overwrite '*' with nothing\n";
    EXPECT_TRUE(text == document + merge + overwrite || text == document + overwrite + merge) << text;
}

TEST(StoreScenarioSourceTest, TheSameSeedGivesTheSameScenario)
{
    EXPECT_EQ(Describe(StoreScenarioSource(7).Make()), Describe(StoreScenarioSource(7).Make()));
    EXPECT_NE(Describe(StoreScenarioSource(7).Make()), Describe(StoreScenarioSource(8).Make()));
}

}  // namespace
}  // namespace korlo::settings::server

// What is explained beside what the store answers, over random files and changes.
#include "explain/SettingExplainer.h"

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExplainFixture.h"
#include "settings/common/GroupNameMatcher.h"
#include "support/Documents.h"
#include "support/Rounds.h"
#include "support/StoreContents.h"
#include "support/StoreScenario.h"

namespace korlo::daemon
{
namespace
{

using core::IniFile;
using settings::server::Groups;
using settings::server::SettingsManager;
using settings::server::StoreModel;
using settings::server::StoreOperation;
using settings::server::StoreScenario;
using settings::server::StoreScenarioSource;
using settings::server::ToIni;

/// How a value came into the files or the store.
enum class Origin
{
    DefaultFile,
    RestrictedFile,
    Persisted,
    Unsaved
};

/// Gives every value of a scenario a text of its own, so that the store's value tells who wrote it.
class Labels
{
public:
    void Label(StoreScenario& scenario)
    {
        LabelAll(scenario.defaults, Origin::DefaultFile);
        LabelAll(scenario.restricted, Origin::RestrictedFile);
        Label(scenario.user, Origin::Persisted);
        for (StoreOperation& operation : scenario.operations)
        {
            const bool isUnsaved = (operation.flags & SettingsManager::DoNotPersist) != 0;
            Label(operation.changes, isUnsaved ? Origin::Unsaved : Origin::Persisted);
            operation.expected.clear();
        }
    }

    /// Null for a value without a label.
    const Origin* Find(const std::string& value) const
    {
        const auto origin = _origins.find(value);
        return origin == _origins.end() ? nullptr : &origin->second;
    }

private:
    void LabelAll(std::vector<Groups>& documents, Origin origin)
    {
        for (Groups& document : documents)
        {
            Label(document, origin);
        }
    }

    /// Claims, and the record of erased groups, mean something and stay.
    void Label(Groups& document, Origin origin)
    {
        for (auto& [name, values] : document)
        {
            for (auto& [key, value] : values)
            {
                if (name != StoreModel::Claims && name != StoreModel::ErasedGroups)
                {
                    value = "value " + std::to_string(_origins.size());
                    _origins[value] = origin;
                }
            }
        }
    }

    std::map<std::string, Origin> _origins;
};

/// A scenario, on a store over files.
class Comparison
{
public:
    Comparison(const StoreScenario& scenario, const Labels& labels) : _scenario(scenario), _labels(labels)
    {
        WriteAll("d/", scenario.defaults);
        WriteAll("r/", scenario.restricted);
        _explained.Write("user.ini", TextOf(ToIni(scenario.user)));
        _pStore = &_explained.Start();
        for (const StoreOperation& operation : scenario.operations)
        {
            Do(operation);
        }
    }

    /// Compares every key that occurs anywhere.
    void Check()
    {
        IniFile settings;
        _pStore->GetGroups(settings, "*");
        const IniFile user = settings::server::UserLayer(*_pStore);
        IniFile all = settings;
        all.MergeSettings(user);
        for (const std::vector<Groups>* pDocuments : {&_scenario.defaults, &_scenario.restricted})
        {
            for (const Groups& document : *pDocuments)
            {
                all.MergeSettings(ToIni(document));
            }
        }
        all.SetValue("A", "nowhere", "");
        for (const auto& [group, values] : all)
        {
            for (const auto& [key, value] : values)
            {
                CheckKey({group, key}, settings, user);
                if (testing::Test::HasFailure())
                {
                    FAIL() << "[" << group << "]" << key << '\n' << _explained.Tell({group, key});
                }
            }
        }
    }

private:
    void WriteAll(const std::string& folder, const std::vector<Groups>& documents)
    {
        for (std::size_t index = 0; index < documents.size(); ++index)
        {
            _explained.Write(folder + std::to_string(index) + ".ini", TextOf(ToIni(documents[index])));
        }
    }

    void Do(const StoreOperation& operation)
    {
        using Kind = StoreOperation::Kind;
        settings::common::GroupNameMatcher matcher;
        switch (operation.kind)
        {
        case Kind::Merge:
            _pStore->MergeSettings(ToIni(operation.changes), operation.flags);
            break;
        case Kind::TestAndMerge:
            _pStore->TestAndMerge(ToIni(operation.expected), ToIni(operation.changes));
            break;
        case Kind::Overwrite:
            _pStore->OverwriteSettings(operation.selection, ToIni(operation.changes));
            break;
        case Kind::Restore:
            matcher.AddNamesAndPatterns(operation.selection);
            _pStore->RestoreToDefaults(matcher);
            break;
        case Kind::Reload:
            _pStore = &_explained.Start();
            break;
        }
    }

    void CheckKey(const settings::SettingLocator& locator, const IniFile& settings, const IniFile& user) const
    {
        const Explanation explanation = _explained.Explain(locator);
        CheckFiles(locator, explanation);
        ASSERT_EQ(explanation.winner.has_value(), settings.HasValue(locator.group, locator.key));
        for (const Occurrence& occurrence : explanation.occurrences)
        {
            const bool isWinner = explanation.winner && &occurrence == &explanation.occurrences[*explanation.winner];
            EXPECT_EQ(occurrence.why.starts_with("it counts"), isWinner);
            EXPECT_NE(occurrence.why, "");
        }
        if (explanation.winner)
        {
            const Occurrence& winner = explanation.occurrences[*explanation.winner];
            const std::string& value = settings.GetValue(locator.group, locator.key);
            EXPECT_EQ(winner.value, value);
            const bool isInUserLayer =
                user.HasValue(locator.group, locator.key) && user.GetValue(locator.group, locator.key) == value;
            CheckLayer(winner, _labels.Find(value), isInUserLayer);
        }
    }

    /// A value without a label may be the same in several layers; then the one that is named must at least have it.
    static void CheckLayer(const Occurrence& winner, const Origin* pOrigin, bool isInUserLayer)
    {
        if (pOrigin == nullptr)
        {
            EXPECT_EQ(winner.file.has_value(), winner.layer != Layer::Unsaved);
            EXPECT_TRUE(winner.layer != Layer::User || isInUserLayer);
            EXPECT_FALSE(winner.layer == Layer::Default && isInUserLayer);
            EXPECT_FALSE(winner.layer == Layer::Unsaved && isInUserLayer);
            return;
        }
        switch (*pOrigin)
        {
        case Origin::DefaultFile:  // a restore copies it
            EXPECT_EQ(winner.layer, isInUserLayer ? Layer::User : Layer::Default);
            break;
        case Origin::RestrictedFile:
            EXPECT_EQ(winner.layer, Layer::Restricted);
            break;
        case Origin::Persisted:
            EXPECT_EQ(winner.layer, Layer::User);
            break;
        case Origin::Unsaved:
            EXPECT_EQ(winner.layer, Layer::Unsaved);
            break;
        }
    }

    /// Each document that has the key is an occurrence, in their order.
    void CheckFiles(const settings::SettingLocator& locator, const Explanation& explanation) const
    {
        std::string expected;
        const auto add = [&](const std::string& file, const Groups& document) {
            const auto group = document.find(locator.group);
            if (group != document.end() && group->second.contains(locator.key))
            {
                expected += _explained.PathOf(file) + ' ' + group->second.at(locator.key) + '\n';
            }
        };
        for (std::size_t index = 0; index < _scenario.defaults.size(); ++index)
        {
            add("d/" + std::to_string(index) + ".ini", _scenario.defaults[index]);
        }
        add("user.ini", settings::server::ToMap(Ini(ContentOf(_explained.user).value())));
        for (std::size_t index = 0; index < _scenario.restricted.size(); ++index)
        {
            add("r/" + std::to_string(index) + ".ini", _scenario.restricted[index]);
        }
        std::string found;
        for (const Occurrence& occurrence : explanation.occurrences)
        {
            found += occurrence.file ? *occurrence.file + ' ' + occurrence.value.value() + '\n' : "";
        }
        EXPECT_EQ(found, expected);
    }

    const StoreScenario& _scenario;
    const Labels& _labels;
    ExplainedStore _explained;
    SettingsManager* _pStore = nullptr;
};

/// KORLO_EXPLAIN_SCENARIOS, or as many as a run of all tests has time for.
unsigned int ScenarioCount()
{
    const char* pText = std::getenv("KORLO_EXPLAIN_SCENARIOS");
    return pText != nullptr ? static_cast<unsigned int>(std::stoul(pText)) : Rounds(100);
}

void CompareOver(unsigned int firstSeed, bool isLabelled)
{
    for (unsigned int seed = firstSeed; seed < firstSeed + ScenarioCount(); ++seed)
    {
        StoreScenario scenario = StoreScenarioSource(seed).Make();
        Labels labels;
        if (isLabelled)
        {
            labels.Label(scenario);
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + '\n' + Describe(scenario));
        Comparison(scenario, labels).Check();
        if (testing::Test::HasFailure())
        {
            return;
        }
    }
}

TEST(SettingExplainerModelTest, EveryKeyOfRandomFilesHasTheValueAndLayerOfTheStore)
{
    CompareOver(1, true);
}

TEST(SettingExplainerModelTest, EqualValuesInSeveralLayersAreExplainedByOneThatHasThem)
{
    CompareOver(1'000'000, false);
}

}  // namespace
}  // namespace korlo::daemon

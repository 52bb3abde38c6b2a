#pragma once
// A store's documents and what is done with it, as data: made at random, printed, and made smaller.

#include <cstddef>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/StoreModel.h"

namespace korlo::settings::server
{

struct StoreOperation
{
    enum class Kind
    {
        Merge,
        TestAndMerge,
        Overwrite,
        Restore,
        Reload
    };

    Kind kind = Kind::Merge;
    unsigned int flags = 0;         // of a merge
    Groups expected;                // of a test-and-merge
    GroupNameCollection selection;  // of an overwrite or restore
    Groups changes;                 // of all but restore and reload
    bool saveFails = false;         // of all but reload
};

struct StoreScenario
{
    std::vector<Groups> defaults;
    std::vector<Groups> restricted;
    Groups user;                       // as it was saved by an earlier store
    GroupNameCollection excluded;      // groups that the store's include filter takes out
    GroupNameCollection subscription;  // of one subscriber; another one hears everything
    std::vector<StoreOperation> operations;
};

/// Scenarios over a few names, so that their operations meet often. The same seed gives the same scenario.
///
/// Thread safety: none of its own; the owner guards it.
class StoreScenarioSource
{
public:
    explicit StoreScenarioSource(unsigned int seed) : _random(seed) {}

    StoreScenario Make()
    {
        StoreScenario scenario;
        scenario.defaults = Documents();
        scenario.restricted = Documents();
        scenario.user = OneIn(2) ? Document() : Groups();
        scenario.excluded = Excluded();
        scenario.subscription = Selection();
        for (unsigned int count = 1 + Below(30); count > 0; --count)
        {
            scenario.operations.push_back(Operation());
        }
        return scenario;
    }

private:
    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(_random() % limit); }
    bool OneIn(unsigned int many) { return Below(many) == 0; }

    const std::string& OneOf(const std::vector<std::string>& strings)
    {
        return strings[Below(static_cast<unsigned int>(strings.size()))];
    }

    /// Documents of a layer, some of which claim groups.
    std::vector<Groups> Documents()
    {
        std::vector<Groups> documents(Below(4));
        for (Groups& document : documents)
        {
            document = Document();
            for (unsigned int claims = OneIn(2) ? Below(4) : 0; claims > 0; --claims)
            {
                document[StoreModel::Claims][OneOf(_names)] = OneOf(_priorities);
            }
        }
        return documents;
    }

    Groups Document()
    {
        Groups document;
        for (unsigned int groups = Below(4); groups > 0; --groups)
        {
            Values& values = document[OneIn(20) ? OneOf(_specialNames) : OneOf(_names)];
            for (unsigned int keys = Below(3); keys > 0; --keys)
            {
                values[OneOf(_keys)] = OneOf(_values);
            }
        }
        return document;
    }

    GroupNameCollection Excluded()
    {
        if (!OneIn(4))
        {
            return {};
        }
        return {OneIn(4) ? OneOf(_specialNames) : OneOf(_names)};
    }

    GroupNameCollection Selection()
    {
        GroupNameCollection entries;
        for (unsigned int count = Below(3); count > 0; --count)
        {
            entries.insert(OneIn(2) ? OneOf(_names) : OneOf(_patterns));
        }
        return entries;
    }

    StoreOperation Operation()
    {
        using Kind = StoreOperation::Kind;
        constexpr Kind kinds[] = {Kind::Merge,     Kind::Merge,   Kind::Merge,   Kind::TestAndMerge,
                                  Kind::Overwrite, Kind::Restore, Kind::Restore, Kind::Reload};
        StoreOperation operation;
        operation.kind = kinds[Below(8)];
        operation.flags = operation.kind == Kind::Merge ? Below(4) : 0;
        operation.expected = operation.kind == Kind::TestAndMerge && !OneIn(4) ? Document() : Groups();
        const bool selects = operation.kind == Kind::Overwrite || operation.kind == Kind::Restore;
        operation.selection = selects ? Selection() : GroupNameCollection();
        const bool changes = operation.kind != Kind::Restore && operation.kind != Kind::Reload;
        operation.changes = changes ? Document() : Groups();
        operation.saveFails = OneIn(16);
        return operation;
    }

    std::mt19937 _random;
    const std::vector<std::string> _names = {"A", "B", "A/x", "A/y", "Secure/k", "A/Trusted", ""};
    const std::vector<std::string> _specialNames = {StoreModel::ErasedGroups, StoreModel::Claims};
    const std::vector<std::string> _patterns = {"A*", "A/*", "*x", "*", "B*", "Secure*", "**", "A*/*y"};
    const std::vector<std::string> _keys = {"k", "l", "1", "2"};
    const std::vector<std::string> _values = {"", "1", "2", "A*"};
    const std::vector<std::string> _priorities = {"-3", "0", "5", "6", "high", ""};
};

inline std::string Describe(const Groups& groups)
{
    std::string text;
    for (const auto& [name, values] : groups)
    {
        text += " [" + name + "]";
        for (const auto& [key, value] : values)
        {
            text += " " + key + "=" + value;
        }
    }
    return text.empty() ? " nothing" : text;
}

inline std::string Describe(const GroupNameCollection& entries)
{
    std::string text;
    for (const std::string& entry : entries)
    {
        text += " '" + entry + "'";
    }
    return text.empty() ? " nothing" : text;
}

inline std::string Describe(const StoreOperation& operation)
{
    const std::string end = operation.saveFails ? "; the save fails" : "";
    switch (operation.kind)
    {
    case StoreOperation::Kind::Merge:
        return "merge, flags " + std::to_string(operation.flags) + ":" + Describe(operation.changes) + end;
    case StoreOperation::Kind::TestAndMerge:
        return "test for" + Describe(operation.expected) + " and merge" + Describe(operation.changes) + end;
    case StoreOperation::Kind::Overwrite:
        return "overwrite" + Describe(operation.selection) + " with" + Describe(operation.changes) + end;
    case StoreOperation::Kind::Restore:
        return "restore" + Describe(operation.selection) + end;
    default:
        return "reload";
    }
}

/// A line for each document and each operation.
inline std::string Describe(const StoreScenario& scenario)
{
    std::string text;
    for (const Groups& document : scenario.defaults)
    {
        text += "default document:" + Describe(document) + "\n";
    }
    for (const Groups& document : scenario.restricted)
    {
        text += "restricted document:" + Describe(document) + "\n";
    }
    text += scenario.user.empty() ? "" : "user layer:" + Describe(scenario.user) + "\n";
    text += scenario.excluded.empty() ? "" : "filtered out:" + Describe(scenario.excluded) + "\n";
    text += scenario.subscription.empty() ? "" : "subscribed:" + Describe(scenario.subscription) + "\n";
    for (const StoreOperation& operation : scenario.operations)
    {
        text += Describe(operation) + "\n";
    }
    return text;
}

/// Makes a scenario smaller as long as a test of it goes on to fail.
///
///     std::cerr << Describe(StoreScenarioShrinker(fails).Shrink(scenario));
///
/// Thread safety: none of its own; the owner guards it.
class StoreScenarioShrinker
{
public:
    using Test = std::function<bool(const StoreScenario&)>;

    /// @param fails true when the scenario shows the failure.
    explicit StoreScenarioShrinker(Test fails) : _fails(std::move(fails)) {}

    /// A scenario that fails, from which nothing more can be taken without it ceasing to fail.
    StoreScenario Shrink(StoreScenario scenario)
    {
        _scenario = std::move(scenario);
        do
        {
            _isSmaller = false;
            TakeFrom(_scenario.operations);
            TakeFrom(_scenario.defaults);
            TakeFrom(_scenario.restricted);
            TakeFrom(_scenario.excluded);
            TakeFrom(_scenario.subscription);
            TakeFromDocuments(_scenario.defaults);
            TakeFromDocuments(_scenario.restricted);
            TakeFromDocument(_scenario.user);
            TakeFromOperations();
        } while (_isSmaller);
        return _scenario;
    }

private:
    /// Changes a part of the scenario, and changes it back if the failure has gone.
    template <typename Part>
    bool Try(Part& part, Part smaller)
    {
        std::swap(part, smaller);
        if (_fails(_scenario))
        {
            _isSmaller = true;
            return true;
        }
        std::swap(part, smaller);
        return false;
    }

    /// Takes out runs of elements, long ones first.
    template <typename Container>
    void TakeFrom(Container& container)
    {
        for (std::size_t length = container.size(); length > 0; length /= 2)
        {
            for (std::size_t first = 0; first + length <= container.size();)
            {
                Container smaller = container;
                const auto begin = std::next(smaller.begin(), static_cast<std::ptrdiff_t>(first));
                smaller.erase(begin, std::next(begin, static_cast<std::ptrdiff_t>(length)));
                first += Try(container, std::move(smaller)) ? 0 : 1;
            }
        }
    }

    void TakeFromDocument(Groups& document)
    {
        TakeFrom(document);
        for (auto& [name, values] : document)
        {
            TakeFrom(values);
        }
    }

    void TakeFromDocuments(std::vector<Groups>& documents)
    {
        for (Groups& document : documents)
        {
            TakeFromDocument(document);
        }
    }

    void TakeFromOperations()
    {
        for (StoreOperation& operation : _scenario.operations)
        {
            TakeFromDocument(operation.expected);
            TakeFrom(operation.selection);
            TakeFromDocument(operation.changes);
            if (operation.flags != 0)
            {
                Try(operation.flags, 0u);
            }
            if (operation.saveFails)
            {
                Try(operation.saveFails, false);
            }
        }
    }

    const Test _fails;
    StoreScenario _scenario;
    bool _isSmaller = false;
};

}  // namespace korlo::settings::server

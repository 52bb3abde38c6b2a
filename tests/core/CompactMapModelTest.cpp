// The same random operations on a CompactMap and on the standard map that it stands for.

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "korlo/core/CompactMap.h"

namespace korlo::core
{
namespace
{

using Map = CompactMap<std::string>;

void MakeValue(unsigned int number, std::string& value)
{
    value = std::string(number % 40, 'v') + std::to_string(number);
}

void MakeValue(unsigned int number, Map& value)
{
    for (unsigned int i = 0; i < number % 5; ++i)
    {
        value["key" + std::to_string(i)] = std::to_string(number);
    }
}

/// Does the same at random to a CompactMap and to a std::map, and compares everything that can be seen of them.
template <typename T>
class RandomWalk
{
public:
    explicit RandomWalk(unsigned int seed) : _random(seed) {}

    void Run(int steps)
    {
        for (int i = 0; i < steps && !::testing::Test::HasFatalFailure(); ++i)
        {
            Step();
            Compare();
        }
    }

private:
    using Tested = CompactMap<T>;
    using Model = std::map<std::string, T>;

    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(_random() % limit); }

    std::string AnyKey()
    {
        const unsigned int number = Below(90);
        return number == 0 ? std::string() : std::string(1 + number % 3, static_cast<char>('\0' + number * 5 % 256));
    }

    T AnyValue()
    {
        T value;
        MakeValue(Below(1000), value);
        return value;
    }

    void Step()
    {
        switch (Below(100))
        {
        case 0:
            Replace(Tested(_tested));  // a copy: all in one block
            break;
        case 1:
            Replace(Build());
            break;
        case 2:
            Swap();
            break;
        case 3:
            Clear();
            break;
        case 4:
            EraseRange();
            break;
        case 5:
            EraseWhileIterating();
            break;
        default:
            StepOnOneKey();
        }
    }

    void StepOnOneKey()
    {
        const std::string key = AnyKey();
        const T value = AnyValue();
        const bool isNew = _model.count(key) == 0;
        switch (Below(7))
        {
        case 0:
            ASSERT_EQ(_tested.erase(key), _model.erase(key));
            _held.erase(key);
            break;
        case 1:
            EraseAt(key);
            break;
        case 2:
            _tested[key] = value;
            _model[key] = value;
            break;
        case 3:
            ASSERT_EQ(_tested.insert({key, value}).second, isNew);
            _model.insert({key, value});
            break;
        case 4:
            ASSERT_EQ(_tested.insert_or_assign(key, value).second, isNew);
            _model.insert_or_assign(key, value);
            break;
        case 5:
            ASSERT_EQ(_tested.try_emplace(key).second, isNew);
            _model.try_emplace(key);
            break;
        default:
            ASSERT_EQ(_tested.emplace(key, value).first->second, _model.emplace(key, value).first->second);
        }
        Hold(key);
    }

    void EraseAt(const std::string& key)
    {
        const auto element = _tested.lower_bound(key);
        const auto modelled = _model.lower_bound(key);
        if (modelled != _model.end())
        {
            _held.erase(modelled->first);
            CompareAt(_tested.erase(element), _model.erase(modelled));
        }
    }

    void EraseRange()
    {
        const auto [first, last] = std::minmax({AnyKey(), AnyKey()});
        _held.erase(_held.lower_bound(first), _held.lower_bound(last));
        CompareAt(_tested.erase(_tested.lower_bound(first), _tested.lower_bound(last)),
                  _model.erase(_model.lower_bound(first), _model.lower_bound(last)));
    }

    void EraseWhileIterating()
    {
        for (auto element = _tested.begin(); element != _tested.end();)
        {
            if (Below(3) == 0)
            {
                _model.erase(element->first);
                _held.erase(element->first);
                element = _tested.erase(element);
            }
            else
            {
                ++element;
            }
        }
    }

    Tested Build()
    {
        typename Tested::Builder builder(_model.size() + Below(3));
        for (const auto& [key, value] : _model)
        {
            builder.Append(key, value);
        }
        return std::move(builder).Build();
    }

    void Replace(Tested with)
    {
        _held.clear();
        if (Below(2) == 0)
        {
            _tested = std::move(with);
        }
        else
        {
            _tested = with;
        }
    }

    void Swap()
    {
        _held.clear();
        std::swap(_model, _otherModel);
        if (Below(2) == 0)
        {
            swap(_tested, _otherTested);
        }
        else
        {
            std::swap(_tested, _otherTested);
        }
    }

    void Clear()
    {
        _held.clear();
        _tested.clear();
        _model.clear();
    }

    void Hold(const std::string& key)
    {
        const auto element = _tested.find(key);
        if (element != _tested.end() && _held.count(key) == 0)
        {
            _held.emplace(key, std::make_pair(element, &*element));
        }
    }

    template <typename Iterator, typename ModelIterator>
    void CompareAt(const Iterator& element, const ModelIterator& modelled)
    {
        ASSERT_EQ(element == _tested.end(), modelled == _model.end());
        if (modelled != _model.end())
        {
            ASSERT_EQ(element->first, modelled->first);
            ASSERT_EQ(element->second, modelled->second);
        }
    }

    void Compare()
    {
        const Tested& tested = _tested;
        ASSERT_EQ(tested.size(), _model.size());
        ASSERT_EQ(tested.empty(), _model.empty());
        ASSERT_TRUE(std::equal(tested.begin(), tested.end(), _model.begin(), _model.end()));
        ASSERT_TRUE(std::equal(tested.rbegin(), tested.rend(), _model.rbegin(), _model.rend()));
        ASSERT_TRUE(tested == Build());
        const std::string key = AnyKey();
        CompareAt(tested.find(key), _model.find(key));
        CompareAt(tested.lower_bound(key), _model.lower_bound(key));
        CompareAt(_tested.upper_bound(key), _model.upper_bound(key));
        ASSERT_EQ(tested.count(key), _model.count(key));
        ASSERT_EQ(tested.contains(key), tested.Lookup(key) != nullptr);
        CompareHeld();
    }

    void CompareHeld()
    {
        for (const auto& [key, held] : _held)
        {
            const auto& [element, pElement] = held;
            const auto modelled = _model.find(key);
            ASSERT_EQ(&*_tested.find(key), pElement) << "the element has moved";
            CompareAt(element, modelled);
            CompareAt(std::next(element), std::next(modelled));
            if (modelled != _model.begin())
            {
                CompareAt(std::prev(element), std::prev(modelled));
            }
        }
    }

    std::mt19937 _random;
    Tested _tested;
    Model _model;
    Tested _otherTested;
    Model _otherModel;
    std::map<std::string, std::pair<typename Tested::iterator, const typename Tested::value_type*>> _held;
};

template <typename T>
void RunRandomWalks()
{
    const unsigned int first = std::random_device()();
    for (unsigned int seed = first; seed != first + 20 && !::testing::Test::HasFatalFailure(); ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomWalk<T>(seed).Run(250);
    }
}

}  // namespace

TEST(CompactMapModelTest, BehavesAsAStandardMapOfStrings)
{
    RunRandomWalks<std::string>();
}

TEST(CompactMapModelTest, BehavesAsAStandardMapOfMaps)
{
    RunRandomWalks<Map>();
}

}  // namespace korlo::core

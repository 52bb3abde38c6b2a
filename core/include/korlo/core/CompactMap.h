#pragma once
// An ordered map from strings, laid out for documents that are loaded once, read often and changed a little.

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "korlo/core/SortedBlock.h"

namespace korlo::core
{

/// An ordered associative container from std::string to T, used like std::map<std::string, T>: keys in byte-wise
/// order, elements are std::pair<const std::string, T>, and references and iterators stay valid until their own element
/// is removed or the whole map is cleared or assigned to. A move or a swap takes the elements along, so references
/// stay, but iterators do not follow them.
///
/// What is built at once (a copy, a Builder) lies in one sorted block without a pointer or an allocation for each
/// element; what is added one by one goes to an ordinary ordered map beside it. An iteration visits both in one order.
/// Only the content counts: two maps are equal when they hold the same pairs, however they were built.
///
/// Look-up, insertion and removal cost at most the logarithm of the size; a step of an iterator is constant while
/// nothing was added one by one, else the same logarithm. Elements removed from the block are skipped 32 at a time;
/// their keys are freed when the last element of the block is removed; a copy of the map has none of them.
///
/// Thread safety: none of its own; the owner guards it. Any number of threads may read at once.
template <typename T>
class CompactMap
{
    using Block = SortedBlock<T>;
    using Additions = std::map<std::string, T, std::less<>>;
    using Position = typename Block::Position;

    template <bool IsConst>
    class Iterator
    {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = std::pair<const std::string, T>;
        using difference_type = std::ptrdiff_t;
        using pointer = std::conditional_t<IsConst, const value_type*, value_type*>;
        using reference = std::conditional_t<IsConst, const value_type&, value_type&>;

        Iterator() = default;

        /// Every iterator can be read as a const_iterator.
        template <bool OtherConst, typename = std::enable_if_t<IsConst && !OtherConst>>
        // cppcheck-suppress noExplicitConstructor ; it does not know explicit(false)
        explicit(false) Iterator(const Iterator<OtherConst>& other)
            : _pMap(other._pMap),
              _pElement(other._pElement),
              _position(other._position),
              _node(other._node)
        {
        }

        reference operator*() const { return *_pElement; }
        pointer operator->() const { return _pElement; }

        Iterator& operator++() { return MoveTo(_pMap->template After<IsConst>(*this)); }

        Iterator operator++(int)
        {
            Iterator old = *this;
            ++*this;
            return old;
        }

        Iterator& operator--() { return MoveTo(_pMap->template Before<IsConst>(*this)); }

        Iterator operator--(int)
        {
            Iterator old = *this;
            --*this;
            return old;
        }

        template <bool OtherConst>
        bool operator==(const Iterator<OtherConst>& other) const
        {
            return _pElement == other._pElement;
        }

    private:
        friend class CompactMap;
        template <bool>
        friend class Iterator;

        Iterator(const CompactMap* pMap, Position position)
            : _pMap(pMap),
              _pElement(&pMap->_block.At(position)),
              _position(position)
        {
        }

        Iterator(const CompactMap* pMap, typename Additions::iterator node)
            : _pMap(pMap),
              _pElement(&*node),
              _node(node)
        {
        }

        explicit Iterator(const CompactMap* pMap) : _pMap(pMap) {}  // the end

        bool InBlock() const { return _position != Block::npos; }

        /// Member by member: what was just written in parts and is copied as a whole makes the processor wait.
        Iterator& MoveTo(const Iterator& other)
        {
            _pElement = other._pElement;
            _position = other._position;
            _node = other._node;
            return *this;
        }

        const CompactMap* _pMap = nullptr;
        std::pair<const std::string, T>* _pElement = nullptr;  // null at the end
        Position _position = Block::npos;                      // npos unless the element is in the block
        typename Additions::iterator _node{};                  // set when the element is an addition
    };

public:
    /// As std::map has it.
    using key_type = std::string;
    using mapped_type = T;
    using value_type = std::pair<const std::string, T>;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = value_type&;
    using const_reference = const value_type&;
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;
    using reverse_iterator = std::reverse_iterator<iterator>;
    using const_reverse_iterator = std::reverse_iterator<const_iterator>;

    /// Fills a map at once, in one block.
    ///
    ///     CompactMap<std::string>::Builder builder(2);
    ///     builder.Append("a", "1");
    ///     builder.Append("b", "2");
    ///     CompactMap<std::string> map = std::move(builder).Build();
    class Builder
    {
    public:
        /// @param capacity the most elements that will be appended; room is taken for all of them.
        explicit Builder(std::size_t capacity) : _block(capacity) {}

        /// Keys come in strictly ascending order. `args` construct the value.
        template <typename... Args>
        void Append(std::string_view key, Args&&... args)
        {
            _block.Append(key, std::forward<Args>(args)...);
        }

        /// The map of what was appended.
        CompactMap Build() &&
        {
            CompactMap map;
            if (_block.Used() != 0)
            {
                _block.Seal();
                map._block = std::move(_block);
            }
            return map;
        }

    private:
        Block _block;
    };

    CompactMap() = default;

    /// The elements in any order; of equal keys the first counts, as in std::map.
    CompactMap(std::initializer_list<value_type> elements) : CompactMap(elements.begin(), elements.end()) {}

    /// The same of a range.
    template <std::input_iterator InputIterator>
    CompactMap(InputIterator first, InputIterator last)
    {
        insert(first, last);
    }

    /// A copy is laid out in one block.
    CompactMap(const CompactMap& other)
    {
        Builder builder(other.size());
        for (const auto& [key, value] : other)
        {
            builder.Append(key, value);
        }
        *this = std::move(builder).Build();
    }

    CompactMap(CompactMap&& other) noexcept = default;

    /// As the constructors: a copy is laid out in one block.
    CompactMap& operator=(const CompactMap& other)
    {
        if (this != &other)
        {
            *this = CompactMap(other);
        }
        return *this;
    }

    /// The old content is destroyed at once; `other` is empty afterwards.
    CompactMap& operator=(CompactMap&& other) noexcept
    {
        CompactMap moved(std::move(other));  // so that the old content is destroyed now, not with `other`
        swap(moved);
        return *this;
    }

    ~CompactMap() = default;

    /// The elements in the order of their keys.
    iterator begin() { return First<false>(); }
    iterator end() { return iterator(this); }
    const_iterator begin() const { return First<true>(); }
    const_iterator end() const { return const_iterator(this); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }
    reverse_iterator rbegin() { return reverse_iterator(end()); }
    reverse_iterator rend() { return reverse_iterator(begin()); }
    const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }

    /// How many elements there are.
    size_type size() const { return _block.Live() + (_pAdditions ? _pAdditions->size() : 0); }
    /// True when there is none.
    bool empty() const { return size() == 0; }

    /// As std::map, by any kind of string and without a copy of it. Never allocates.
    iterator find(std::string_view key) { return Find<false>(key); }
    const_iterator find(std::string_view key) const { return Find<true>(key); }
    bool contains(std::string_view key) const { return Lookup(key) != nullptr; }
    size_type count(std::string_view key) const { return contains(key) ? 1 : 0; }
    iterator lower_bound(std::string_view key) { return LowerBound<false>(key); }
    const_iterator lower_bound(std::string_view key) const { return LowerBound<true>(key); }
    iterator upper_bound(std::string_view key) { return UpperBound<false>(key); }
    const_iterator upper_bound(std::string_view key) const { return UpperBound<true>(key); }

    /// The value of the key, or null. Never allocates.
    const T* Lookup(std::string_view key) const
    {
        const Position position = _block.Find(key);
        if (position != Block::npos && _block.IsLive(position))
        {
            return &_block.At(position).second;
        }
        if (_pAdditions)
        {
            const auto node = _pAdditions->find(key);
            return node == _pAdditions->end() ? nullptr : &node->second;
        }
        return nullptr;
    }

    /// The same of a map that may be changed.
    T* Lookup(std::string_view key) { return const_cast<T*>(std::as_const(*this).Lookup(key)); }

    /// @throws std::out_of_range for a key that is not there.
    const T& at(std::string_view key) const
    {
        const T* pValue = Lookup(key);
        if (pValue == nullptr)
        {
            throw std::out_of_range("CompactMap::at: no such key");
        }
        return *pValue;
    }

    /// The same of a map that may be changed.
    T& at(std::string_view key) { return const_cast<T&>(std::as_const(*this).at(key)); }

    /// The value of the key, added empty if it is not there.
    T& operator[](std::string_view key) { return try_emplace(key).first->second; }

    /// Adds the key with a value made of `args`, unless it is there; says where it is and whether it was added.
    template <typename... Args>
    std::pair<iterator, bool> try_emplace(std::string_view key, Args&&... args)
    {
        const Position position = _block.Find(key);
        if (position != Block::npos)
        {
            const bool added = !_block.IsLive(position);
            if (added)
            {
                _block.At(position).second = T(std::forward<Args>(args)...);
                _block.Revive(position);
            }
            return {iterator(this, position), added};
        }
        if (!_pAdditions)
        {
            _pAdditions = std::make_unique<Additions>();
        }
        auto node = _pAdditions->lower_bound(key);
        const bool added = node == _pAdditions->end() || node->first != key;
        if (added)
        {
            node = _pAdditions->try_emplace(node, std::string(key), std::forward<Args>(args)...);
        }
        return {iterator(this, node), added};
    }

    /// The same with a value.
    template <typename Value>
    std::pair<iterator, bool> emplace(std::string_view key, Value&& value)
    {
        return try_emplace(key, std::forward<Value>(value));
    }

    /// The same with an element.
    std::pair<iterator, bool> insert(const value_type& element) { return try_emplace(element.first, element.second); }

    /// With a hint, as std::inserter passes it; the hint is not needed.
    iterator insert(const_iterator, const value_type& element) { return insert(element).first; }

    /// Adds each element of the range whose key is not there yet.
    template <std::input_iterator InputIterator>
    void insert(InputIterator first, InputIterator last)
    {
        for (; first != last; ++first)
        {
            insert(*first);
        }
    }

    /// Sets the value of the key; says where it is and whether it was added.
    template <typename Value>
    std::pair<iterator, bool> insert_or_assign(std::string_view key, Value&& value)
    {
        const auto result = try_emplace(key, std::forward<Value>(value));  // takes the value only if it adds the key
        if (!result.second)
        {
            result.first->second = std::forward<Value>(value);
        }
        return result;
    }

    /// Removes the element and returns the one after it. Every other element stays where it is.
    iterator erase(const_iterator element)
    {
        const iterator next = After<false>(AsMutable(element));
        if (element.InBlock())
        {
            _block.Erase(element._position);
            if (_block.Live() == 0)
            {
                _block = Block();
            }
        }
        else
        {
            _pAdditions->erase(element._node);
            if (_pAdditions->empty())
            {
                _pAdditions.reset();
            }
        }
        return next;
    }

    /// The same by the other kind of iterator.
    iterator erase(iterator element) { return erase(const_iterator(element)); }

    /// Removes the elements from `first` to the one before `last`, and returns `last`.
    iterator erase(const_iterator first, const_iterator last)
    {
        while (first != last)
        {
            first = erase(first);
        }
        return AsMutable(last);
    }

    /// @return how many were removed: 1, or 0 if the key was not there.
    size_type erase(std::string_view key)
    {
        const const_iterator element = find(key);
        if (element == cend())
        {
            return 0;
        }
        erase(element);
        return 1;
    }

    /// Removes every element.
    void clear()
    {
        _block = Block();
        _pAdditions.reset();
    }

    /// Exchanges the elements, each of which stays where it is.
    void swap(CompactMap& other) noexcept
    {
        std::swap(_block, other._block);
        std::swap(_pAdditions, other._pAdditions);
    }

    /// Exchanges the elements of two maps.
    friend void swap(CompactMap& left, CompactMap& right) noexcept { left.swap(right); }

    /// True when both hold the same keys with equal values.
    friend bool operator==(const CompactMap& left, const CompactMap& right)
    {
        return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
    }

private:
    template <bool IsConst>
    Iterator<IsConst> First() const
    {
        return Lesser<IsConst>(_block.NextLive(0), _pAdditions ? _pAdditions->begin() : typename Additions::iterator());
    }

    template <bool IsConst>
    Iterator<IsConst> Find(std::string_view key) const
    {
        const Position position = _block.Find(key);
        if (position != Block::npos && _block.IsLive(position))
        {
            return Iterator<IsConst>(this, position);
        }
        if (_pAdditions)
        {
            const auto node = _pAdditions->find(key);
            if (node != _pAdditions->end())
            {
                return Iterator<IsConst>(this, node);
            }
        }
        return Iterator<IsConst>(this);
    }

    template <bool IsConst>
    Iterator<IsConst> LowerBound(std::string_view key) const
    {
        return Lesser<IsConst>(_block.NextLive(_block.LowerBound(key)),
                               _pAdditions ? _pAdditions->lower_bound(key) : typename Additions::iterator());
    }

    template <bool IsConst>
    Iterator<IsConst> UpperBound(std::string_view key) const
    {
        Iterator<IsConst> element = LowerBound<IsConst>(key);
        if (element._pElement != nullptr && element->first == key)
        {
            ++element;
        }
        return element;
    }

    // An iterator knows only its own element and finds the neighbours when it is asked to move: so it stays valid
    // whatever is added or removed elsewhere.
    template <bool IsConst>
    Iterator<IsConst> After(const Iterator<IsConst>& element) const
    {
        if (!_pAdditions)
        {
            return Lesser<IsConst>(_block.NextLive(element._position + 1), typename Additions::iterator());
        }
        const std::string& key = element->first;
        return element.InBlock()
                   ? Lesser<IsConst>(_block.NextLive(element._position + 1), _pAdditions->upper_bound(key))
                   : Lesser<IsConst>(_block.NextLive(_block.LowerBound(key)), std::next(element._node));
    }

    template <bool IsConst>
    Iterator<IsConst> Before(const Iterator<IsConst>& element) const
    {
        Position position = _block.Used();
        auto node = _pAdditions ? _pAdditions->end() : typename Additions::iterator();
        if (element._pElement != nullptr)
        {
            const std::string& key = element->first;
            position = element.InBlock() ? element._position : _block.LowerBound(key);
            node = _pAdditions ? _pAdditions->lower_bound(key) : node;
        }
        return Greater<IsConst>(_block.PreviousLive(position), node);
    }

    /// Of a position (npos: none) and an addition (the end: none) the one whose key comes first.
    template <bool IsConst>
    Iterator<IsConst> Lesser(Position position, typename Additions::iterator node) const
    {
        const bool hasNode = _pAdditions && node != _pAdditions->end();
        if (position == Block::npos)
        {
            return hasNode ? Iterator<IsConst>(this, node) : Iterator<IsConst>(this);
        }
        return hasNode && node->first < _block.At(position).first ? Iterator<IsConst>(this, node)
                                                                  : Iterator<IsConst>(this, position);
    }

    /// Of a position (npos: none) and the addition before `node` (the beginning: none) the one whose key comes last.
    template <bool IsConst>
    Iterator<IsConst> Greater(Position position, typename Additions::iterator node) const
    {
        const bool hasNode = _pAdditions && node != _pAdditions->begin();
        if (!hasNode)
        {
            return Iterator<IsConst>(this, position);
        }
        const auto before = std::prev(node);
        return position == Block::npos || _block.At(position).first < before->first ? Iterator<IsConst>(this, before)
                                                                                    : Iterator<IsConst>(this, position);
    }

    iterator AsMutable(const const_iterator& element) const
    {
        iterator result(this);
        result._pElement = element._pElement;
        result._position = element._position;
        result._node = element._node;
        return result;
    }

    Block _block;
    std::unique_ptr<Additions> _pAdditions;  // null while there is none; its keys are never in the block
};

}  // namespace korlo::core

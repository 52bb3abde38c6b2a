#pragma once
// A sorted array of (string, value) pairs in one allocation: what CompactMap keeps bulk-built elements in.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace korlo::core
{

/// A block of pairs in ascending order of their keys, filled once, whose elements never move. An element can be erased
/// and put back in its place; there is no room for other keys. Positions count from 0 to Used(), erased elements
/// included.
///
/// The allocation holds a header, the elements, one bit an element that says whether it is alive and, in a block of 32
/// and more, a hash index of the positions, so that a look-up costs one string comparison.
///
/// Thread safety: none of its own; the owner guards it.
template <typename T>
class SortedBlock
{
public:
    /// A key and its value.
    using value_type = std::pair<const std::string, T>;

    /// Where an element is, from 0 in ascending order of keys, whether it is alive or erased.
    using Position = std::uint32_t;

    /// No position.
    static constexpr Position npos = std::numeric_limits<Position>::max();

    /// No elements, no allocation.
    SortedBlock() = default;

    /// Room for `capacity` elements, none of them there yet.
    explicit SortedBlock(std::size_t capacity)
    {
        if (capacity != 0)
        {
            Allocate(capacity);
        }
    }

    /// Leaves `other` without elements.
    SortedBlock(SortedBlock&& other) noexcept : _pHeader(std::exchange(other._pHeader, nullptr)) {}

    /// Exchanges the elements.
    SortedBlock& operator=(SortedBlock&& other) noexcept
    {
        std::swap(_pHeader, other._pHeader);
        return *this;
    }

    SortedBlock(const SortedBlock&) = delete;
    SortedBlock& operator=(const SortedBlock&) = delete;

    ~SortedBlock()
    {
        if (_pHeader != nullptr)
        {
            std::destroy_n(Entries(), Used());
            ::operator delete(_pHeader);
        }
    }

    /// Appends an element; the caller brings the keys in strictly ascending order and no more than there is room for.
    template <typename... Args>
    void Append(std::string_view key, Args&&... args)
    {
        const Position position = _pHeader->used;
        ::new (static_cast<void*>(Entries() + position)) value_type(
            std::piecewise_construct, std::forward_as_tuple(key), std::forward_as_tuple(std::forward<Args>(args)...));
        LiveWords()[position / 32] |= BitOf(position);
        ++_pHeader->used;
        ++_pHeader->live;
    }

    /// Call once after the last Append: look-ups are fast from here on.
    void Seal()
    {
        if (_pHeader != nullptr && _pHeader->slotMask != 0 && !BuildIndex())
        {
            _pHeader->slotMask = 0;  // names made to collide: the binary search serves them as well as any others
        }
    }

    /// How many elements were appended, erased ones included.
    Position Used() const { return _pHeader == nullptr ? 0 : _pHeader->used; }

    /// How many of them are alive.
    Position Live() const { return _pHeader == nullptr ? 0 : _pHeader->live; }

    /// The element at a position below Used.
    value_type& At(Position position) const { return Entries()[position]; }

    /// False once the element at a position below Used is erased.
    bool IsLive(Position position) const { return (LiveWords()[position / 32] & BitOf(position)) != 0; }

    /// The position of the key, alive or erased, or npos.
    Position Find(std::string_view key) const
    {
        if (_pHeader == nullptr)
        {
            return npos;
        }
        if (_pHeader->slotMask != 0)
        {
            return FindByIndex(key);
        }
        Position first = 0;
        for (Position count = Used(); count > 0;)
        {
            const Position half = count / 2;
            const int order = At(first + half).first.compare(key);
            if (order == 0)
            {
                return first + half;
            }
            first += order < 0 ? half + 1 : 0;
            count = order < 0 ? count - half - 1 : half;
        }
        return npos;
    }

    /// The first position whose key is not less than `key`, alive or erased, or Used().
    Position LowerBound(std::string_view key) const
    {
        Position first = 0;
        Position count = Used();
        while (count > 0)
        {
            const Position half = count / 2;
            if (std::string_view(At(first + half).first) < key)
            {
                first += half + 1;
                count -= half + 1;
            }
            else
            {
                count = half;
            }
        }
        return first;
    }

    /// The first living position from `position` on, or npos.
    Position NextLive(Position position) const
    {
        const Position used = Used();
        if (position >= used)
        {
            return npos;
        }
        if (Live() == used || IsLive(position))
        {
            return position;
        }
        const Position words = WordsFor(used);
        std::uint32_t word = LiveWords()[position / 32] & (~std::uint32_t{0} << (position % 32));
        for (Position index = position / 32;;)
        {
            if (word != 0)
            {
                return index * 32 + static_cast<Position>(std::countr_zero(word));
            }
            if (++index == words)
            {
                return npos;
            }
            word = LiveWords()[index];
        }
    }

    /// The last living position before `position`, or npos.
    Position PreviousLive(Position position) const
    {
        if (position == 0 || _pHeader == nullptr)
        {
            return npos;
        }
        const Position last = position - 1;
        std::uint32_t word = LiveWords()[last / 32] & (~std::uint32_t{0} >> (31 - last % 32));
        for (Position index = last / 32;;)
        {
            if (word != 0)
            {
                return index * 32 + 31 - static_cast<Position>(std::countl_zero(word));
            }
            if (index == 0)
            {
                return npos;
            }
            word = LiveWords()[--index];
        }
    }

    /// Erases a living element. Its key stays, so that the order holds; its value's memory is given back.
    void Erase(Position position)
    {
        T empty{};
        std::swap(At(position).second, empty);
        LiveWords()[position / 32] &= ~BitOf(position);
        --_pHeader->live;
    }

    /// Brings an erased element back, with an empty value.
    void Revive(Position position)
    {
        LiveWords()[position / 32] |= BitOf(position);
        ++_pHeader->live;
    }

private:
    struct Header
    {
        Position capacity;
        Position used;
        Position live;
        Position slotMask;  // 0: no index
    };

    static constexpr Position IndexFrom = 32;  // fewer elements are found as fast without an index

    // The most slots passed over for each element on the average. Ordinary names in the fullest index take 1.5, with
    // single runs of 200; more means that somebody chose the names to collide.
    static constexpr std::uint64_t MeanProbesLimit = 8;
    static constexpr std::size_t EntriesOffset =
        (sizeof(Header) + alignof(value_type) - 1) / alignof(value_type) * alignof(value_type);
    static_assert(alignof(value_type) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

    static Position WordsFor(Position elements) { return (elements + 31) / 32; }
    static std::uint32_t BitOf(Position position) { return std::uint32_t{1} << (position % 32); }

    static Position SlotsFor(Position capacity)
    {
        return capacity < IndexFrom ? 0 : std::bit_ceil(capacity + capacity / 3);
    }

    void Allocate(std::size_t capacity)
    {
        constexpr std::size_t bytesEach = sizeof(value_type) + 12;  // the bit and the index at its sparsest
        if (capacity >= npos / 4 || capacity > (std::numeric_limits<std::size_t>::max() - EntriesOffset) / bytesEach)
        {
            throw std::length_error("SortedBlock: too many elements");
        }
        const auto elements = static_cast<Position>(capacity);
        const Position slots = SlotsFor(elements);
        const std::size_t tail = (std::size_t{WordsFor(elements)} + slots) * sizeof(std::uint32_t);
        const std::size_t tailOffset = EntriesOffset + capacity * sizeof(value_type);
        void* pMemory = ::operator new(tailOffset + tail);
        _pHeader = ::new (pMemory) Header{elements, 0, 0, slots == 0 ? 0 : slots - 1};
        std::memset(static_cast<std::byte*>(pMemory) + tailOffset, 0, tail);
    }

    value_type* Entries() const
    {
        return reinterpret_cast<value_type*>(reinterpret_cast<std::byte*>(_pHeader) + EntriesOffset);
    }

    std::uint32_t* LiveWords() const { return reinterpret_cast<std::uint32_t*>(Entries() + _pHeader->capacity); }
    std::uint32_t* Slots() const { return LiveWords() + WordsFor(_pHeader->capacity); }

    // A slot holds position + 1 in its low bits and, above them, as much of the hash as there is room for, so that
    // hardly any other string is ever compared with the one sought. 0 is a free slot.
    Position PositionBits() const { return std::bit_ceil(_pHeader->capacity + 1) - 1; }

    // The multiplication spreads what is left of the hash over the high bits, also where std::hash has 32 bits.
    static std::uint32_t HashOf(std::string_view key)
    {
        return static_cast<std::uint32_t>(std::hash<std::string_view>{}(key)) * 0x9E3779B1u;
    }

    Position FirstSlot(std::uint32_t hash) const { return (hash ^ (hash >> 15)) & _pHeader->slotMask; }

    bool BuildIndex()
    {
        const Position bits = PositionBits();
        std::uint64_t probesLeft = MeanProbesLimit * _pHeader->used;
        for (Position position = 0; position < _pHeader->used; ++position)
        {
            const std::uint32_t hash = HashOf(At(position).first);
            Position slot = FirstSlot(hash);
            for (; Slots()[slot] != 0; slot = (slot + 1) & _pHeader->slotMask)
            {
                if (probesLeft-- == 0)
                {
                    return false;
                }
            }
            Slots()[slot] = (hash & ~bits) | (position + 1);
        }
        return true;
    }

    Position FindByIndex(std::string_view key) const
    {
        const Position bits = PositionBits();
        const std::uint32_t hash = HashOf(key);
        for (Position slot = FirstSlot(hash);; slot = (slot + 1) & _pHeader->slotMask)
        {
            const std::uint32_t content = Slots()[slot];
            if (content == 0)
            {
                return npos;
            }
            const Position position = (content & bits) - 1;
            if (((content ^ hash) & ~bits) == 0 && At(position).first == key)
            {
                return position;
            }
        }
    }

    Header* _pHeader = nullptr;  // owned
};

}  // namespace korlo::core

#pragma once
// The wishes of the fleet that wait for their turn.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "Payload.h"
#include "TopicNames.h"

namespace korlo::settings::mqtt
{

/// One desired message as it came.
struct Wish
{
    TopicNames::Parts topic;
    std::string payload;  // empty when it is too large
    bool isTooLarge = false;
    bool isRepeated = false;  // it failed, and what became of it is not known
};

/// Keeps a limited number of wishes. What does not fit is dropped, and noted: the broker holds wishes anyway and sends
/// them again when it is asked to. Then those that have been dealt with already are left out, however many there are,
/// so that each time some more have their turn.
///
/// Thread safety: none of its own; the owner guards it.
class WishQueue
{
public:
    /// @param isHeld the broker held it, so it may have come before.
    void Add(const TopicNames::Parts& topic, std::string_view payload, bool isHeld);

    /// Behind all others.
    void AddAgain(Wish wish);

    bool IsEmpty() const { return _wishes.empty(); }
    Wish Take();

    /// The message was answered, or needs no answer.
    void NoteSettled(const Wish& wish);

    /// Drops what waits, and what was settled counts no more.
    void Clear();

    /// Drops what waits; what was settled stays.
    void Drop();

    /// True when a wish did not fit since the last NoteAsked or Clear.
    bool HasDropped() const { return _hasDropped; }

    /// The broker is asked for all wishes once more.
    void NoteAsked() { _hasDropped = false; }

private:
    static std::uint64_t KeyOf(const std::string& level, std::string_view payload);

    std::deque<Wish> _wishes;
    std::size_t _bytes = 0;
    bool _hasDropped = false;
    std::unordered_set<std::uint64_t> _settled;
};

}  // namespace korlo::settings::mqtt

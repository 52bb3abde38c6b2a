#include "WishQueue.h"

#include <utility>

namespace korlo::settings::mqtt
{
namespace
{

constexpr std::size_t MostBytes = 4 * 1024 * 1024;  // of all that wait, with what each costs beside its payload
constexpr std::size_t MostSettled = 64 * 1024;

std::size_t BytesOf(const Wish& wish)
{
    return sizeof(Wish) + 2 * wish.topic.level.size() + wish.payload.size();
}

}  // namespace

std::uint64_t WishQueue::KeyOf(const std::string& level, std::string_view payload)
{
    State texts;
    texts[level] = payload;
    return FingerprintOf(texts);
}

void WishQueue::Add(const TopicNames::Parts& topic, std::string_view payload, bool isHeld)
{
    const bool isTooLarge = payload.size() > MostDesiredBytes;
    Wish wish{topic, isTooLarge ? "" : std::string(payload), isTooLarge, false};
    if (isHeld && _settled.contains(KeyOf(topic.level, wish.payload)))
    {
        return;
    }
    if (_bytes + BytesOf(wish) > MostBytes)
    {
        _hasDropped = true;
        return;
    }
    _bytes += BytesOf(wish);
    _wishes.push_back(std::move(wish));
}

void WishQueue::AddAgain(Wish wish)
{
    wish.isRepeated = true;
    _bytes += BytesOf(wish);
    _wishes.push_back(std::move(wish));
}

Wish WishQueue::Take()
{
    Wish wish = std::move(_wishes.front());
    _wishes.pop_front();
    _bytes -= BytesOf(wish);
    return wish;
}

void WishQueue::NoteSettled(const Wish& wish)
{
    if (_settled.size() >= MostSettled)
    {
        _settled.clear();
    }
    _settled.insert(KeyOf(wish.topic.level, wish.payload));
}

void WishQueue::Clear()
{
    _wishes.clear();
    _bytes = 0;
    _hasDropped = false;
    _settled.clear();
}

void WishQueue::Drop()
{
    _wishes.clear();
    _bytes = 0;
}

}  // namespace korlo::settings::mqtt

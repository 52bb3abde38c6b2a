#include "saving/Checksum.h"

#include <array>
#include <cstddef>

namespace korlo::daemon
{
namespace
{

constexpr std::size_t StepBytes = 8;

/// What each value of a byte adds, for each place in a step.
using Tables = std::array<std::array<std::uint32_t, 256>, StepBytes>;

constexpr Tables MakeTables()
{
    constexpr std::uint32_t polynomial = 0xEDB88320u;
    Tables tables{};
    for (std::uint32_t byte = 0; byte < tables[0].size(); ++byte)
    {
        std::uint32_t rest = byte;
        for (int bit = 0; bit < 8; ++bit)
        {
            rest = (rest >> 1) ^ ((rest & 1) != 0 ? polynomial : 0);
        }
        tables[0][byte] = rest;
    }
    for (std::size_t place = 1; place < StepBytes; ++place)
    {
        for (std::size_t byte = 0; byte < tables[0].size(); ++byte)
        {
            const std::uint32_t rest = tables[place - 1][byte];
            tables[place][byte] = (rest >> 8) ^ tables[0][rest & 0xFFu];
        }
    }
    return tables;
}

constexpr Tables StepTables = MakeTables();

std::uint32_t FourBytes(const char* pText)
{
    const auto byte = [pText](int place) { return std::uint32_t{static_cast<unsigned char>(pText[place])}; };
    return byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
}

}  // namespace

/// Eight bytes a step: the whole user file goes through here when a log is folded, while a client waits.
std::uint32_t Checksum(std::string_view text, std::uint32_t before)
{
    std::uint32_t rest = ~before;
    for (; text.size() >= StepBytes; text.remove_prefix(StepBytes))
    {
        const std::uint32_t low = FourBytes(text.data()) ^ rest;
        const std::uint32_t high = FourBytes(text.data() + 4);
        rest = StepTables[7][low & 0xFFu] ^ StepTables[6][low >> 8 & 0xFFu] ^ StepTables[5][low >> 16 & 0xFFu] ^
               StepTables[4][low >> 24] ^ StepTables[3][high & 0xFFu] ^ StepTables[2][high >> 8 & 0xFFu] ^
               StepTables[1][high >> 16 & 0xFFu] ^ StepTables[0][high >> 24];
    }
    for (const char c : text)
    {
        rest = (rest >> 8) ^ StepTables[0][(rest ^ static_cast<unsigned char>(c)) & 0xFFu];
    }
    return ~rest;
}

}  // namespace korlo::daemon

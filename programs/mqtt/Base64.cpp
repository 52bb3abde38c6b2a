#include "Base64.h"

#include <cstddef>

namespace korlo::settings::mqtt
{
namespace
{

constexpr std::string_view Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned int BitsOfDigit = 6;
constexpr unsigned int BitsOfByte = 8;
constexpr unsigned int DigitMask = 0x3F;
constexpr std::size_t QuantumDigits = 4;

}  // namespace

std::string EncodeBase64(std::string_view bytes)
{
    std::string text;
    unsigned int bits = 0;  // those that wait are the lowest
    unsigned int waiting = 0;
    for (const char byte : bytes)
    {
        bits = (bits << BitsOfByte) | static_cast<unsigned char>(byte);
        for (waiting += BitsOfByte; waiting >= BitsOfDigit;)
        {
            waiting -= BitsOfDigit;
            text += Digits[(bits >> waiting) & DigitMask];
        }
    }
    if (waiting > 0)
    {
        text += Digits[(bits << (BitsOfDigit - waiting)) & DigitMask];
    }
    text.append((QuantumDigits - text.size() % QuantumDigits) % QuantumDigits, '=');
    return text;
}

std::optional<std::string> DecodeBase64(std::string_view text)
{
    std::string bytes;
    unsigned int bits = 0;
    unsigned int waiting = 0;
    for (const char character : text.substr(0, text.find('=')))
    {
        const std::size_t digit = Digits.find(character);
        if (digit == std::string_view::npos)
        {
            return std::nullopt;
        }
        bits = (bits << BitsOfDigit) | static_cast<unsigned int>(digit);
        waiting += BitsOfDigit;
        if (waiting >= BitsOfByte)
        {
            waiting -= BitsOfByte;
            bytes += static_cast<char>(bits >> waiting);
        }
    }
    return EncodeBase64(bytes) == text ? std::optional(bytes) : std::nullopt;
}

}  // namespace korlo::settings::mqtt

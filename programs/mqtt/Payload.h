#pragma once
// What the messages of the bridge say, as JSON.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"

namespace korlo::settings::mqtt
{

using State = core::IniFile::KeyValueMap;

/// The most that a desired payload may hold.
constexpr std::size_t MostDesiredBytes = 256 * 1024;

/// The highest version: the last integer that every JSON library keeps whole.
constexpr std::uint64_t MostVersion = (std::uint64_t{1} << 53) - 1;

/// What `desired` says.
struct Desired
{
    State state;
    std::uint64_t version = 0;
    bool replaces = false;  // the whole group; else it is merged into it
};

/// What the broker holds of a group.
struct Held
{
    std::uint64_t version = 0;                 // 0: it says none that makes sense
    std::optional<std::uint64_t> fingerprint;  // of its state; none where it is no report
};

/// A desired payload that makes no sense.
///
/// Thread safety: none of its own; the owner guards it.
struct PayloadFault
{
    std::optional<std::uint64_t> version;  // if it says one
    std::string message;
};

/// Why a wish was not carried out.
struct Rejection
{
    enum Code : int
    {
        MakesNoSense = 400,
        NotAllowed = 403,
        Outdated = 409,
        TooLarge = 413
    };

    std::optional<std::uint64_t> version;  // of the wish
    Code code = MakesNoSense;
    std::string message;
    std::uint64_t applied = 0;  // with Outdated: the version that counts
};

/// A number that tells one state from another: different states have different ones, but for one chance in 2^64.
std::uint64_t FingerprintOf(const State& state);

std::string StatusPayload(bool isOnline, const std::string& session, bool hasSettings);

/// The session that says in its status that the device is there; none when it says otherwise, or is no status at all.
std::optional<std::string> OnlineSession(std::string_view status);

/// None when a key is not UTF-8: JSON has no form for it. Values that are not become `{"$base64": "..."}`.
std::optional<std::string> ReportedPayload(const State& state, std::uint64_t version, std::int64_t timestampMs);

/// Never fails: of what is no report, it is the version that can be made out, if any.
Held ReadReported(std::string_view payload);

/// Reads a wish, strictly: a member that is unknown, missing, twice or of another type is a fault.
/// @throws PayloadFault.
Desired ReadDesired(std::string_view payload);

std::string AcceptedPayload(std::uint64_t version);
std::string RejectedPayload(const Rejection& rejection);

}  // namespace korlo::settings::mqtt

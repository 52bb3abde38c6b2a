#include "Payload.h"

#include <algorithm>
#include <array>
#include <set>

#include <nlohmann/json.hpp>

#include "Base64.h"

namespace korlo::settings::mqtt
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr const char* StateMember = "state";
constexpr const char* VersionMember = "version";
constexpr const char* ModeMember = "mode";
constexpr const char* TimestampMember = "timestamp";
constexpr const char* Base64Key = "$base64";

/// In texts of ours; names that come from outside are shortened where they would be the message.
std::string Quoted(const std::string& text)
{
    constexpr std::size_t most = 64;
    return '\'' + (text.size() > most ? text.substr(0, most) + "..." : text) + '\'';
}

/// What follows the first byte of a character, by that byte.
struct Utf8Form
{
    unsigned char first;
    unsigned char last;
    // cppcheck-suppress unusedStructMember ; it does not see that IsUtf8 uses these
    std::size_t more;  // bytes
    // Of the second byte: shorter forms of the same character are none, nor are surrogates, nor what is beyond the last
    // character.
    // cppcheck-suppress unusedStructMember
    unsigned char leastOfNext;
    // cppcheck-suppress unusedStructMember
    unsigned char mostOfNext;
};

constexpr std::array<Utf8Form, 9> Utf8Forms{{{0x00, 0x7F, 0, 0, 0},
                                             {0xC2, 0xDF, 1, 0x80, 0xBF},
                                             {0xE0, 0xE0, 2, 0xA0, 0xBF},
                                             {0xE1, 0xEC, 2, 0x80, 0xBF},
                                             {0xED, 0xED, 2, 0x80, 0x9F},
                                             {0xEE, 0xEF, 2, 0x80, 0xBF},
                                             {0xF0, 0xF0, 3, 0x90, 0xBF},
                                             {0xF1, 0xF3, 3, 0x80, 0xBF},
                                             {0xF4, 0xF4, 3, 0x80, 0x8F}}};

bool IsUtf8(std::string_view text)
{
    while (!text.empty())
    {
        const auto byteAt = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
        const auto* const form =
            std::find_if(Utf8Forms.begin(), Utf8Forms.end(),
                         [first = byteAt(0)](const Utf8Form& f) { return first >= f.first && first <= f.last; });
        if (form == Utf8Forms.end() || text.size() <= form->more)
        {
            return false;
        }
        for (std::size_t at = 1; at <= form->more; ++at)
        {
            const unsigned char least = at == 1 ? form->leastOfNext : 0x80;
            const unsigned char most = at == 1 ? form->mostOfNext : 0xBF;
            if (byteAt(at) < least || byteAt(at) > most)
            {
                return false;
            }
        }
        text.remove_prefix(form->more + 1);
    }
    return true;
}

/// Reads a desired or a reported payload as it is parsed, without a tree in memory. It reads on behind the first fault,
/// for the version, so that an answer can tell it.
///
///     depth 1  {"state": ..., "version": 7, "mode": "merge"}
///     depth 2  {"key": "value", "other": ...}
///     depth 3  {"$base64": "..."}
class StateReader : public nlohmann::json_sax<nlohmann::json>
{
public:
    /// @param extra the member beside `state` and `version` that is known.
    explicit StateReader(const char* extra) : _extra(extra) {}

    const std::string& GetFault() const { return _fault; }
    std::optional<std::uint64_t> GetVersion() const { return _version; }
    State& GetState() { return _state; }
    const std::optional<std::string>& GetMode() const { return _mode; }

    bool start_object(std::size_t) override
    {
        const bool isExpected = _alien == 0 && (_depth == 0 || (_depth == 1 && _member == StateMember) ||
                                                (_depth == InState && _isInState));
        return isExpected ? Enter() : EnterAlien();
    }

    bool end_object() override
    {
        if (_alien == 0 && _depth == InValue && !_hasBytes)
        {
            Refuse("the value of " + Quoted(_key) + R"( is an object without "$base64")");
        }
        return Leave();
    }

    bool start_array(std::size_t) override { return EnterAlien(); }
    bool end_array() override { return Leave(); }

    bool key(string_t& name) override
    {
        if (_alien > 0)
        {
            return true;
        }
        switch (_depth)
        {
        case 1:
            TakeMember(name);
            break;
        case InState:
            _key = name;
            if (_state.contains(name))
            {
                Refuse("the key " + Quoted(name) + " comes twice");
            }
            break;
        default:
            if (name != Base64Key || _hasBytes)
            {
                Refuse("the value of " + Quoted(_key) + R"( is an object with more than "$base64")");
            }
            _hasBytes = true;
        }
        return true;
    }

    bool string(string_t& text) override
    {
        if (_alien > 0)
        {
            return true;
        }
        if (_depth == InState)
        {
            _state[_key] = text;
        }
        else if (_depth == InValue)
        {
            TakeBytes(text);
        }
        else if (_depth == 1 && _member == ModeMember)
        {
            _mode = text;
        }
        else
        {
            RefuseType();
        }
        return true;
    }

    bool number_unsigned(number_unsigned_t number) override
    {
        const bool isVersion = _member == VersionMember && number >= 1 && number <= MostVersion;
        if (_depth != 1 || _alien > 0 || (!isVersion && _member != TimestampMember))
        {
            RefuseType();
        }
        else if (isVersion)
        {
            _version = _version.value_or(number);
        }
        return true;
    }

    bool null() override { return RefuseType(); }
    bool boolean(bool) override { return RefuseType(); }
    bool number_integer(number_integer_t) override { return RefuseType(); }
    bool number_float(number_float_t, const string_t&) override { return RefuseType(); }
    bool binary(binary_t&) override { return RefuseType(); }

    bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception&) override
    {
        Refuse("it is not JSON, from byte " + std::to_string(position) + " on");
        return false;
    }

    /// The first fault is told.
    void Refuse(const std::string& fault) { _fault = _fault.empty() ? fault : _fault; }

    /// Once everything is read.
    void CheckMembers()
    {
        for (const char* name : {StateMember, VersionMember})
        {
            if (!_members.contains(name))
            {
                Refuse(std::string("\"") + name + "\" is missing");
            }
        }
    }

private:
    static constexpr std::size_t InState = 2;
    static constexpr std::size_t InValue = 3;

    bool Enter()
    {
        ++_depth;
        _isInState = _depth >= InState;
        _hasBytes = false;
        return true;
    }

    /// A value that has no place here, and all that is in it.
    bool EnterAlien()
    {
        RefuseType();
        ++_alien;
        return true;
    }

    bool Leave()
    {
        if (_alien > 0)
        {
            --_alien;
            return true;
        }
        --_depth;
        _isInState = _depth >= InState;
        return true;
    }

    bool RefuseType()
    {
        if (_depth == 0)
        {
            Refuse("it is not an object");
        }
        else if (_isInState)
        {
            Refuse("the value of " + Quoted(_key) + R"( is neither a string nor {"$base64": "..."})");
        }
        else if (_member == VersionMember)
        {
            Refuse(R"("version" is not an integer from 1 to )" + std::to_string(MostVersion));
        }
        else
        {
            Refuse('"' + _member + (_member == StateMember ? "\" is not an object" : "\" has the wrong type"));
        }
        return true;
    }

    void TakeMember(const std::string& name)
    {
        _member = name;
        if (name != StateMember && name != VersionMember && name != _extra)
        {
            Refuse("there is no member " + Quoted(name) + R"(, only "state", "version" and ")" + _extra + '"');
        }
        else if (!_members.insert(name).second)
        {
            Refuse("\"" + name + "\" comes twice");
        }
    }

    void TakeBytes(const std::string& text)
    {
        if (const std::optional<std::string> bytes = DecodeBase64(text))
        {
            _state[_key] = *bytes;
            return;
        }
        Refuse("the \"$base64\" of " + Quoted(_key) + " is not base64");
    }

    const std::string _extra;
    std::size_t _depth = 0;
    std::size_t _alien = 0;  // levels of what has no place here, below `_depth`
    bool _isInState = false;
    std::string _member;  // the last one of depth 1
    std::set<std::string> _members;
    std::string _key;  // the last one of the state
    bool _hasBytes = false;
    std::string _fault;
    std::optional<std::uint64_t> _version;
    State _state;
    std::optional<std::string> _mode;
};

}  // namespace

std::uint64_t FingerprintOf(const State& state)
{
    // FNV-1a over each text and its length: so that no two lists of texts are the same bytes.
    std::uint64_t hash = 0xCBF29CE484222325u;
    const auto add = [&hash](unsigned char byte) {
        constexpr std::uint64_t prime = 0x100000001B3u;
        hash = (hash ^ byte) * prime;
    };
    const auto addText = [&add](const std::string& text) {
        constexpr unsigned int bitsOfByte = 8;
        for (std::size_t length = text.size(), left = sizeof(length); left > 0; --left, length >>= bitsOfByte)
        {
            add(static_cast<unsigned char>(length));
        }
        std::for_each(text.begin(), text.end(), [&add](char byte) { add(static_cast<unsigned char>(byte)); });
    };
    for (const auto& [key, value] : state)
    {
        addText(key);
        addText(value);
    }
    return hash;
}

std::string StatusPayload(bool isOnline, const std::string& session, bool hasSettings)
{
    return Json{{"online", isOnline}, {"session", session}, {"settings", hasSettings}, {VersionMember, KORLO_VERSION}}
        .dump();
}

std::optional<std::string> OnlineSession(std::string_view status)
{
    const nlohmann::json document = nlohmann::json::parse(status, nullptr, false);
    if (!document.is_object() || document.value("online", nlohmann::json()) != true)
    {
        return std::nullopt;
    }
    const nlohmann::json session = document.value("session", nlohmann::json());
    return session.is_string() ? session.get<std::string>() : std::string();
}

std::optional<std::string> ReportedPayload(const State& state, std::uint64_t version, std::int64_t timestampMs)
{
    Json values = Json::object();
    for (const auto& [key, value] : state)
    {
        if (!IsUtf8(key))
        {
            return std::nullopt;
        }
        // Not by index: that would look for the key among all before it.
        values.get_ref<Json::object_t&>().emplace_back(key, IsUtf8(value) ? Json(value)
                                                                          : Json{{Base64Key, EncodeBase64(value)}});
    }
    return Json{{StateMember, std::move(values)}, {VersionMember, version}, {TimestampMember, timestampMs}}.dump();
}

Held ReadReported(std::string_view payload)
{
    StateReader reader(TimestampMember);
    nlohmann::json::sax_parse(payload, &reader);
    reader.CheckMembers();
    Held held;
    held.version = reader.GetVersion().value_or(0);
    if (reader.GetFault().empty())
    {
        held.fingerprint = FingerprintOf(reader.GetState());
    }
    return held;
}

Desired ReadDesired(std::string_view payload)
{
    constexpr const char* merge = "merge";
    constexpr const char* replace = "replace";
    StateReader reader(ModeMember);
    nlohmann::json::sax_parse(payload, &reader);
    reader.CheckMembers();
    const std::string mode = reader.GetMode().value_or(merge);
    if (mode != merge && mode != replace)
    {
        reader.Refuse(R"("mode" is neither "merge" nor "replace")");
    }
    if (!reader.GetFault().empty())
    {
        throw PayloadFault{reader.GetVersion(), reader.GetFault()};
    }
    return {std::move(reader.GetState()), *reader.GetVersion(), mode == replace};
}

std::string AcceptedPayload(std::uint64_t version)
{
    return Json{{VersionMember, version}}.dump();
}

std::string RejectedPayload(const Rejection& rejection)
{
    Json payload{{VersionMember, nullptr}, {"code", rejection.code}, {"message", rejection.message}};
    if (rejection.version)
    {
        payload[VersionMember] = *rejection.version;
    }
    if (rejection.code == Rejection::Outdated)
    {
        payload["applied"] = rejection.applied;
    }
    constexpr int compact = -1;
    return payload.dump(compact, ' ', false, Json::error_handler_t::replace);
}

}  // namespace korlo::settings::mqtt

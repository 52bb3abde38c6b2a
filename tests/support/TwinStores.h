#pragma once
// Two stores that differ only in groups that a client may not read, and what they tell that client.

#include <cstddef>
#include <istream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "korlo/osa/Exception.h"
#include "server/ErasedGroups.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/FakeAccess.h"
#include "support/RecordingObserver.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{

/// A script of what a client says while others use the store. Each line is sent by the client, but for these:
///
///   %read PATTERN, %change PATTERN, %deny PATTERN    what the client may do, before anything is said
///   %default, %left default, %right restricted, ...  a document, up to a full stop
///   %both, %left, %right                             requests of somebody else, up to "%end"
///   %record LEFT RIGHT                               two entries that are written into the record of erased groups
///   %close                                           the client leaves; its next line comes on a new connection
///
/// What stands behind "left" reaches the left store alone, "right" the right one. A document, a change or an entry that
/// would make them differ in something that the client may read is left out, so any text at all is a script.
class TwinScript
{
public:
    explicit TwinScript(const std::string& text)
    {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
        {
            Add(in, line);
        }
    }

    enum class Side
    {
        Left,
        Right,
        Both
    };

    enum class Kind
    {
        Line,
        Foreign,
        Record,
        Close
    };

    struct Step
    {
        Kind kind;
        Side side;
        std::string text;   // of the left side
        std::string other;  // of the right side
    };

    struct Document
    {
        bool isRestricted;
        Side side;
        core::IniFile settings;
    };

    FakeRights rights;
    std::vector<Document> documents;
    std::vector<Step> steps;

private:
    void Add(std::istream& in, const std::string& line)
    {
        std::istringstream words(line);
        std::string word;
        std::string second;
        std::string third;
        words >> word >> second >> third;
        const Side side = word == "%left" ? Side::Left : word == "%right" ? Side::Right : Side::Both;
        const std::string& document = side == Side::Both ? word : second;
        if (word == "%read" || word == "%change" || word == "%deny")
        {
            AddRule(word, second);
        }
        else if (word.starts_with('%') && (document.ends_with("default") || document.ends_with("restricted")))
        {
            documents.push_back({document.ends_with("restricted"), side, Ini(TakeUntil(in, "."))});
        }
        else if (word == "%both" || side != Side::Both)
        {
            steps.push_back({Kind::Foreign, side, TakeUntil(in, "%end"), ""});
        }
        else if (word == "%record")
        {
            steps.push_back({Kind::Record, Side::Both, second, third});
        }
        else
        {
            steps.push_back({word == "%close" ? Kind::Close : Kind::Line, side, line + '\n', ""});
        }
    }

    void AddRule(const std::string& word, const std::string& pattern)
    {
        constexpr std::size_t mostRules = 8;
        auto& patterns = word == "%read" ? rights.read : word == "%change" ? rights.change : rights.deny;
        // To compare two patterns takes time that grows fast with their asterisks.
        if (steps.empty() && patterns.size() < mostRules && pattern.size() <= 16)
        {
            patterns.push_back(pattern);
        }
    }

    static std::string TakeUntil(std::istream& in, const char* last)
    {
        std::string text;
        for (std::string line; std::getline(in, line) && line != last;)
        {
            text += line + '\n';
        }
        return text;
    }
};

/// One of the two stores, with its client and the others.
///
/// Thread safety: none of its own; the owner guards it.
class Twin
{
public:
    /// @param script borrowed; must outlive this object.
    Twin(const TwinScript& script, TwinScript::Side side) : _script(script), _side(side)
    {
        for (const TwinScript::Document& document : script.documents)
        {
            if (Concerns(document.side))
            {
                (document.isRestricted ? _loader.documents : _persister.defaults).push_back(Admitted(document));
            }
        }
        _pStore = std::make_unique<SettingsManager>(&_persister, &_loader, nullptr, false);
        // Of one store alone: that somebody listens shows nowhere, either.
        _pStore->SetChangeObserver(side == Side::Left ? &_observer : nullptr);
    }

    Twin(const Twin&) = delete;
    Twin& operator=(const Twin&) = delete;

    /// All that the client is sent, and where its connections end.
    std::string Run()
    {
        FakeAccess client(_script.rights);
        while (_next < _script.steps.size())
        {
            InputBuffer buffer(*this);
            std::istream in(&buffer);
            Serve(in, client);
            _sent << "(end)\n";
            if (_next < _script.steps.size() && _script.steps[_next].kind == Kind::Close)
            {
                ++_next;
            }
        }
        return _sent.str();
    }

    /// Everything that the store holds.
    std::string Contents() const
    {
        std::ostringstream out;
        _pStore->DumpAllSettings(out);
        _pStore->DumpUserSettings(out);
        return out.str();
    }

private:
    using Side = TwinScript::Side;
    using Kind = TwinScript::Kind;

    /// What others may do at one store alone: change what the client cannot see.
    class HiddenRights : public IAccessRights
    {
    public:
        explicit HiddenRights(const FakeRights& client) : _client(client) {}

        bool MayReadEverything() const override { return false; }
        bool MayRead(const std::string&) const override { return true; }
        bool MayReadAllOf(const std::string&) const override { return true; }
        bool MayChangeEverything() const override { return false; }
        bool MayChange(const std::string& group) const override { return !_client.MayRead(group); }
        bool MayChangeAllOf(const std::string& entry) const override
        {
            return entry.size() <= MostEntryBytes && _client.HidesAllOf(entry);
        }

    private:
        const FakeRights& _client;
    };

    /// What others may do at both stores: all but to decide by what differs, and to number the record's entries by hand
    /// where the stores number them differently.
    class EqualRights : public IAccessRights
    {
    public:
        explicit EqualRights(const FakeRights& client) : _client(client) {}

        bool MayReadEverything() const override { return false; }
        bool MayRead(const std::string& group) const override { return _client.MayRead(group); }
        bool MayReadAllOf(const std::string& entry) const override { return _client.MayReadAllOf(entry); }
        bool MayChangeEverything() const override { return false; }
        bool MayChange(const std::string& group) const override { return group != ErasedGroups; }
        bool MayChangeAllOf(const std::string&) const override { return true; }

    private:
        const FakeRights& _client;
    };

    template <typename Rights>
    class Access : public IClientAccess
    {
    public:
        explicit Access(const FakeRights& client) : _rights(client) {}

        std::shared_ptr<const IAccessRights> GetRights() const override { return {std::shared_ptr<void>(), &_rights}; }
        void OnRefused(const std::string&, const GroupNameCollection&) override {}

    private:
        const Rights _rights;
    };

    /// The lines of one connection; what others do between two of them is done when the second is read.
    class InputBuffer : public std::streambuf
    {
    public:
        explicit InputBuffer(Twin& twin) : _twin(twin) {}

    protected:
        int_type underflow() override
        {
            const std::string* const pLine = _twin.NextLine();
            if (pLine == nullptr)
            {
                return traits_type::eof();
            }
            _line = *pLine;
            setg(_line.data(), _line.data(), _line.data() + _line.size());
            return traits_type::to_int_type(*gptr());
        }

    private:
        Twin& _twin;
        std::string _line;
    };

    static constexpr std::size_t MostEntryBytes = 64;

    bool Concerns(Side side) const { return side == Side::Both || side == _side; }

    /// Without what the client could tell the stores apart by; and without the groups by which one document decides
    /// about others.
    core::IniFile Admitted(const TwinScript::Document& document) const
    {
        core::IniFile admitted = document.settings;
        for (auto group = admitted.begin(); group != admitted.end();)
        {
            const bool isDropped = group->first == ErasedGroups || group->first == "KorloSettings/LoadPriority" ||
                                   (document.side != Side::Both && _script.rights.MayRead(group->first));
            group = isDropped ? admitted.RemoveGroup(group) : std::next(group);
        }
        return admitted;
    }

    /// Null at the end of the connection.
    const std::string* NextLine()
    {
        for (; _next < _script.steps.size(); ++_next)
        {
            const TwinScript::Step& step = _script.steps[_next];
            if (step.kind == Kind::Close)
            {
                return nullptr;
            }
            if (step.kind == Kind::Line)
            {
                ++_next;
                return &step.text;
            }
            DoForeign(step);
        }
        return nullptr;
    }

    void DoForeign(const TwinScript::Step& step)
    {
        if (step.kind == Kind::Record)
        {
            WriteRecord(step);
        }
        else if (Concerns(step.side))
        {
            Access<EqualRights> equal(_script.rights);
            Access<HiddenRights> hidden(_script.rights);
            std::istringstream in(step.text);
            std::ostringstream ignored;
            Serve(in, ignored, step.side == Side::Both ? static_cast<IClientAccess&>(equal) : hidden);
        }
    }

    /// As whoever may change everything can do it.
    void WriteRecord(const TwinScript::Step& step)
    {
        const FakeRights& rights = _script.rights;
        if (step.text.size() <= MostEntryBytes && step.other.size() <= MostEntryBytes &&
            !rights.MayReadAllOf(step.text) && !rights.MayReadAllOf(step.other))
        {
            core::IniFile record;
            record.SetValue(ErasedGroups, "entry", _side == Side::Left ? step.text : step.other);
            _pStore->MergeSettings(record, 0);
        }
    }

    void Serve(std::istream& in, IClientAccess& access) { Serve(in, _sent, access); }

    void Serve(std::istream& in, std::ostream& out, IClientAccess& access)
    {
        try
        {
            ServerEnv env{_pStore.get(), &_serialization};
            ClientHandler(&env, &in, &out, nullptr, &access).Run();
        }
        catch (const osa::Exception&)
        {
            // A body that makes no sense ends its connection.
        }
    }

    const TwinScript& _script;
    const Side _side;
    RecordingPersister _persister;
    RecordingRestrictedLoader _loader;
    RecordingObserver _observer;
    SerializationManager _serialization;
    std::unique_ptr<SettingsManager> _pStore;
    std::ostringstream _sent;
    std::size_t _next = 0;
};

/// What came of a script at each store: what the client was sent, and what the store holds at the end.
struct TwinOutcome
{
    explicit TwinOutcome(const std::string& text) : TwinOutcome(TwinScript(text)) {}

    std::string leftSent;
    std::string rightSent;
    std::string leftContents;
    std::string rightContents;

private:
    explicit TwinOutcome(const TwinScript& script)
    {
        Twin left(script, TwinScript::Side::Left);
        Twin right(script, TwinScript::Side::Right);
        leftSent = left.Run();
        rightSent = right.Run();
        leftContents = left.Contents();
        rightContents = right.Contents();
    }
};

}  // namespace korlo::settings::server

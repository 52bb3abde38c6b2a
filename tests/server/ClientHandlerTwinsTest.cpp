// A client's whole view of the store depends on nothing that it may not read.

#include "settings/server/ClientHandler.h"

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/LogCapture.h"
#include "support/Rounds.h"
#include "support/TwinStores.h"

namespace korlo::settings::server
{
namespace
{

/// Scripts over a few names, so that what they do meets often. The same seed gives the same script.
///
/// Thread safety: none of its own; the owner guards it.
class TwinScriptSource
{
public:
    explicit TwinScriptSource(unsigned int seed) : _random(seed) {}

    std::string Make()
    {
        Rules();
        Documents();
        if (OneIn(2))
        {
            _text += "subscribe\n*\n.\n";
        }
        for (unsigned int count = 3 + Below(20); count > 0; --count)
        {
            OneIn(3) ? Request(true) : Foreign();
        }
        if (!OneIn(4))
        {
            _text += "dump\ndump all\ninfo subscribed\nget\n*\n.\nget\n" + std::string(RefusedName) + "\n.\n";
        }
        return _text;
    }

private:
    static constexpr const char* RefusedName = "KorloSettings/Trusted/Refused";

    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(_random() % limit); }
    bool OneIn(unsigned int many) { return Below(many) == 0; }

    const std::string& OneOf(const std::vector<std::string>& strings)
    {
        return strings[Below(static_cast<unsigned int>(strings.size()))];
    }

    const std::string& Name()
    {
        static const std::vector<std::string> names = {
            "A", "A1", "A2", "A*", "B", "B1", "B*1", "*", "", "ASecure", "B/Trusted", ErasedGroups, RefusedName};
        return OneOf(names);
    }

    const std::string& Entry()
    {
        static const std::vector<std::string> patterns = {"*", "A*", "B*", "*1", "*Secure", "K*", "KorloSettings/*"};
        return OneIn(3) ? OneOf(patterns) : Name();
    }

    std::string Entries()
    {
        if (OneIn(3))
        {
            return Entry() + "\n.\n";
        }
        std::string lines;
        for (unsigned int count = 1 + Below(3); count > 0; --count)
        {
            lines += Entry() + '\n';
        }
        return lines + ".\n";
    }

    std::string Body()
    {
        core::IniFile settings;
        for (unsigned int count = OneIn(3) ? 0 : Below(4); count > 0; --count)
        {
            core::IniFile::KeyValueMap& values = settings[Name()];
            if (!OneIn(4))
            {
                values[OneIn(3) ? "entry" : OneIn(2) ? "1" : "k"] = OneIn(2) ? Entry() : "x";
            }
        }
        return TextOf(settings) + ".\n";
    }

    /// What somebody may have written there.
    std::string Record() { return TextOf(Ini("[" + std::string(ErasedGroups) + "]\nentry=" + Entry() + '\n')) + ".\n"; }

    void Rules()
    {
        static const std::vector<std::string> words = {"%read ", "%read ", "%change ", "%deny "};
        if (OneIn(2))
        {
            _text += "%change A*\n%read K*\n";  // random ones seldom show a part of the record of erased groups
            return;
        }
        for (unsigned int count = 1 + Below(4); count > 0; --count)
        {
            _text += OneOf(words) + Entry() + '\n';
        }
    }

    void Documents()
    {
        static const std::vector<std::string> words = {"%default\n",       "%restricted\n",      "%left default\n",
                                                       "%right default\n", "%left restricted\n", "%right restricted\n"};
        for (unsigned int count = Below(5); count > 0; --count)
        {
            _text += OneOf(words) + Body();
        }
    }

    /// @param isClient false for what changes the store alone.
    void Request(bool isClient)
    {
        switch (Below(isClient ? 13 : 6))
        {
        case 0:
            _text += "merge\n" + Body();
            break;
        case 1:
            _text += "merge nopersist\n" + Body();
            break;
        case 3:
            _text += "test-and-merge\n" + (OneIn(3) ? Record() : Body()) + (OneIn(2) ? ".\n" : Body());
            break;
        case 2:
        case 4:
            _text += "overwrite\n" + (OneIn(2) ? Name() + "\n.\n.\n" : Entries() + Body());
            break;
        case 5:
            _text += "restore\n" + Entries();
            break;
        case 6:
        case 7:
            _text += "subscribe\n" + Entries();
            break;
        case 8:
            _text += "get\n" + Entries();
            break;
        case 9:
            _text += "get delimited\n" + Entries();
            break;
        case 10:
            _text += OneIn(2) ? "dump\n" : "dump all\n";
            break;
        case 11:
            _text += "info subscribed\n";
            break;
        default:
            // Requests with a body have none in this form, so it is used to read.
            _text += "serialize phparray\nget delimited\n" + Entries() + "serialize ini\n";
            break;
        }
    }

    void Foreign()
    {
        static const std::vector<std::string> sides = {"%both\n", "%left\n", "%right\n"};
        if (OneIn(5))
        {
            _text += "%record " + Entry() + ' ' + Entry() + '\n';
            return;
        }
        _text += OneOf(sides);
        Request(false);
        _text += "%end\n";
    }

    std::mt19937 _random;
    std::string _text;
};

TEST(ClientHandlerTwinsTest, GroupsThatAClientMayNotReadChangeNoByteOfWhatItIsSent)
{
    const LogCapture log;  // a name that no list can carry is warned of each time
    constexpr unsigned int scripts = Rounds(3000);
    unsigned int different = 0;
    unsigned int notified = 0;
    unsigned int refused = 0;
    for (unsigned int seed = 1; seed <= scripts; ++seed)
    {
        const std::string script = TwinScriptSource(seed).Make();
        const TwinOutcome outcome(script);
        ASSERT_EQ(outcome.leftSent, outcome.rightSent) << "seed " << seed << ", script:\n" << script;
        different += outcome.leftContents != outcome.rightContents ? 1 : 0;
        notified += outcome.leftSent.find("async change\n") != std::string::npos ? 1 : 0;
        refused += outcome.leftSent.find("operation=") != std::string::npos ? 1 : 0;
    }
    RecordProperty("different", static_cast<int>(different));
    RecordProperty("notified", static_cast<int>(notified));
    RecordProperty("refused", static_cast<int>(refused));
    EXPECT_GT(different, scripts / 4) << "the scripts have lost their point";
    EXPECT_GT(notified, scripts / 20);
    EXPECT_GT(refused, scripts / 100);
}

}  // namespace
}  // namespace korlo::settings::server

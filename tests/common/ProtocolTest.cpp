#include "common/Protocol.h"

#include <new>
#include <sstream>
#include <streambuf>
#include <string>

#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/Files.h"
#include "support/PiecewiseStream.h"
#include "support/ProtocolExchanges.h"

namespace korlo::settings::common
{
namespace
{

using core::IniFile;

/// What `write`, called with a writer, writes.
template <typename Write>
std::string Written(const Write& write)
{
    std::ostringstream out;
    write(RequestWriter(out));
    return out.str();
}

TEST(ProtocolTest, WritesTheRequestsOfTheTable)
{
    const auto expect = [](const char* exchange, const auto& write) {
        EXPECT_EQ(Written(write), ExchangeNamed(exchange).request) << exchange;
    };
    const IniFile volume9 = Ini("[Audio]\nvolume=9\n");
    expect("get delimited", [](const RequestWriter& writer) { writer.Get({"Audio"}); });
    expect("merge", [&](const RequestWriter& writer) { writer.Merge(volume9, true); });
    expect("merge nopersist", [&](const RequestWriter& writer) { writer.Merge(volume9, false); });
    expect("test-and-merge that succeeds", [](const RequestWriter& writer) {
        writer.TestAndMerge(Ini("[Audio]\nvolume=3\n"), Ini("[Audio]\nvolume=4\n"));
    });
    expect("overwrite", [](const RequestWriter& writer) { writer.Overwrite({"Audio"}, Ini("[Audio]\nvolume=1\n")); });
    expect("restore of nothing", [](const RequestWriter& writer) { writer.Restore({}); });
    expect("dump all", [](const RequestWriter& writer) { writer.Dump(true); });
    expect("info subscribed without subscribers", [](const RequestWriter& writer) { writer.InfoSubscribed(); });
    expect("subscribe twice", [](const RequestWriter& writer) {
        writer.Subscribe({"Audio"});
        writer.Subscribe({"Net/eth0"});
        writer.InfoSubscribed();
    });
    expect("nothing is answered after quit", [](const RequestWriter& writer) {
        writer.Dump(false);
        writer.Quit();
        writer.Dump(false);
    });
}

/// Reads what a server says as a client does, and writes it again as it was understood.
std::string Understood(std::istream& in)
{
    const ResponseReader reader(in);
    std::string text;
    for (std::string line; std::getline(in, line);)
    {
        IniFile settings;
        GroupNameCollection groups;
        const std::string_view keyword = FirstWord(line);
        text += line + '\n';
        if (keyword == word::Data)
        {
            reader.ReadSettings(settings);
            text += TextOf(settings) + ".\n";
        }
        else if (keyword == word::Result)
        {
            text += reader.ReadOutcome() ? "ok\n" : "failure\n";
        }
        else if (keyword == word::Async)
        {
            reader.ReadNotification(groups, settings);
            for (const std::string& group : groups)
            {
                text += group + '\n';
            }
            text += ".\n" + TextOf(settings) + ".\n";
        }
    }
    return text;
}

TEST(ProtocolTest, ReadsEveryResponseOfTheTableHoweverItArrives)
{
    for (const std::size_t pieceBytes : {1u, 2u, 3u, 4096u})
    {
        for (const Exchange& exchange : Exchanges)
        {
            // Dumps and listings have no keyword, and other serializers are not a client's.
            if (exchange.response.starts_with("data") || exchange.response.starts_with("result") ||
                exchange.response.starts_with("async"))
            {
                if (exchange.request.find("phparray") == std::string::npos &&
                    exchange.request.find("dump") == std::string::npos)
                {
                    SCOPED_TRACE(std::string(exchange.name) + ", in pieces of " + std::to_string(pieceBytes));
                    PiecewiseStream in(exchange.response, pieceBytes);
                    EXPECT_EQ(Understood(in), exchange.response);
                }
            }
        }
    }
}

TEST(ProtocolTest, ReadsADumpAsItStands)
{
    for (const std::size_t pieceBytes : {1u, 2u, 3u, 4096u})
    {
        PiecewiseStream in(ExchangeNamed("dump all").response + "next\n", pieceBytes);
        EXPECT_EQ(ResponseReader(in).ReadText(), ExchangeDefaults);
        EXPECT_TRUE(in.good());
        std::string next;
        std::getline(in, next);
        EXPECT_EQ(next, "next");
    }
}

TEST(ProtocolTest, WhatIsCutShortLeavesTheStreamUnfit)
{
    const std::string notification = "A\n.\n[A]\nx=1\n.\n";
    for (std::size_t size = 0; size < notification.size(); ++size)
    {
        SCOPED_TRACE(size);
        std::istringstream in(notification.substr(0, size));
        GroupNameCollection groups;
        IniFile settings;
        ResponseReader(in).ReadNotification(groups, settings);
        EXPECT_FALSE(in.good());
    }
    std::istringstream dump("[A]\nx=1\n");
    ResponseReader(dump).ReadText();
    EXPECT_FALSE(dump.good());
}

TEST(ProtocolTest, AnOutcomeWithoutItsLineBreakIsNone)
{
    std::istringstream cut("ok");
    EXPECT_FALSE(ResponseReader(cut).ReadOutcome());
    EXPECT_FALSE(cut.good());
}

TEST(ProtocolTest, SkipsWhatFollowsAKeyword)
{
    std::istringstream in("[A]\nx=1\n.\nok\nnext\n");
    ResponseReader(in).Skip(word::Data);
    ResponseReader(in).Skip(word::Result);
    std::string next;
    std::getline(in, next);
    EXPECT_EQ(next, "next");
}

TEST(ProtocolTest, TheFirstWordStandsBetweenBlanks)
{
    for (const char* line : {"data", "data ", " \tdata more", "data\r", "\v\fdata\n"})
    {
        EXPECT_EQ(FirstWord(line), "data") << line;
    }
    for (const char* line : {"", " ", " \t\r"})
    {
        EXPECT_EQ(FirstWord(line), "") << line;
    }
}

/// A document whose text is larger than a buffer that is large already.
IniFile Large()
{
    IniFile settings;
    settings.SetValue("A", "x", std::string(100000, 'x'));
    return settings;
}

/// Takes so many bytes, and then finds no memory.
class ShortOfMemory : public std::streambuf
{
public:
    explicit ShortOfMemory(std::streamsize bytes) : _left(bytes) {}

    bool flushed = false;

protected:
    int_type overflow(int_type) override { throw std::bad_alloc(); }

    std::streamsize xsputn(const char*, std::streamsize count) override
    {
        if (count > _left)
        {
            throw std::bad_alloc();
        }
        _left -= count;
        return count;
    }

    int sync() override
    {
        flushed = true;
        return 0;
    }

private:
    std::streamsize _left;
};

TEST(ProtocolTest, ARequestThatIsNotWholeFailsTheStreamAndIsNotFlushed)
{
    for (const bool isThrown : {false, true})
    {
        for (const std::streamsize bytes : {0, 3, 6, 40000})
        {
            ShortOfMemory buffer(bytes);
            std::ostream out(&buffer);
            out.exceptions(isThrown ? std::ios_base::badbit : std::ios_base::goodbit);
            try
            {
                RequestWriter(out).Merge(Large(), true);
            }
            catch (const std::bad_alloc&)
            {
                EXPECT_TRUE(isThrown);
            }
            EXPECT_TRUE(out.bad());
            EXPECT_FALSE(buffer.flushed);
        }
    }
}

}  // namespace
}  // namespace korlo::settings::common

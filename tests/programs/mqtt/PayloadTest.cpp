#include "Payload.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Base64.h"

namespace korlo::settings::mqtt
{
namespace
{

using testing::HasSubstr;

State StateOf(const std::vector<std::pair<std::string, std::string>>& values)
{
    State state;
    for (const auto& [key, value] : values)
    {
        state[key] = value;
    }
    return state;
}

TEST(PayloadTest, BytesSurviveBase64)
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
    {
        SCOPED_TRACE(byte);
        EXPECT_EQ(DecodeBase64(EncodeBase64(bytes)), bytes);
        bytes += static_cast<char>(255 - byte);
    }
    EXPECT_EQ(EncodeBase64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(EncodeBase64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(EncodeBase64("foob"), "Zm9vYg==");
}

TEST(PayloadTest, TextThatIsNotBase64IsNone)
{
    for (const char* text : {"Zg", "Zg=", "Z===", "Zh==", "Zg==Zg==", "Zg ==", "Z-==", "=", "====", "Zm9v="})
    {
        SCOPED_TRACE(text);
        EXPECT_EQ(DecodeBase64(text), std::nullopt);
    }
}

TEST(PayloadTest, AReportTellsStateVersionAndTime)
{
    EXPECT_EQ(ReportedPayload(StateOf({{"b", "2"}, {"a", "1"}}), 7, 1700000000123),
              R"({"state":{"a":"1","b":"2"},"version":7,"timestamp":1700000000123})");
    EXPECT_EQ(ReportedPayload(State(), 1, 0), R"({"state":{},"version":1,"timestamp":0})");
}

TEST(PayloadTest, ValuesThatAreNotUtf8TravelAsBase64)
{
    // Valid: the first and last characters of each length. The others: cut, too long a form, a surrogate, too high.
    for (const char* text : {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                             "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
    {
        EXPECT_THAT(*ReportedPayload(StateOf({{"k", text}}), 1, 0), Not(HasSubstr("$base64")));
    }
    for (const char* text : {"\x80", "\xC2", "\xC1\xBF", "\xE0\x9F\xBF", "\xE2\x82", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
                             "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "a\xC3(", "\xE2(\xA1"})
    {
        EXPECT_EQ(*ReportedPayload(StateOf({{"k", text}}), 1, 0),
                  R"({"state":{"k":{"$base64":")" + EncodeBase64(text) + R"("}},"version":1,"timestamp":0})");
    }
}

TEST(PayloadTest, AGroupWithAKeyThatIsNotUtf8HasNoReport)
{
    EXPECT_EQ(ReportedPayload(StateOf({{"a", "1"}, {"\xFF", "2"}}), 1, 0), std::nullopt);
}

TEST(PayloadTest, WhatIsReportedIsReadAsTheSameState)
{
    const State state = StateOf({{"", ""}, {"a", std::string("\0\n\"\\", 4)}, {"b", "\xFF\xFE"}, {"$base64", "x"}});
    const Held held = ReadReported(*ReportedPayload(state, 41, 5));
    EXPECT_EQ(held.version, 41u);
    EXPECT_EQ(held.fingerprint, FingerprintOf(state));
}

TEST(PayloadTest, DifferentStatesHaveDifferentFingerprints)
{
    EXPECT_NE(FingerprintOf(StateOf({{"a", "bc"}})), FingerprintOf(StateOf({{"ab", "c"}})));
    EXPECT_NE(FingerprintOf(StateOf({{"a", ""}})), FingerprintOf(State()));
    EXPECT_NE(FingerprintOf(StateOf({{"a", "b"}, {"c", "d"}})), FingerprintOf(StateOf({{"a", "d"}, {"c", "b"}})));
}

TEST(PayloadTest, OfRubbishTheVersionIsReadIfThereIsOne)
{
    EXPECT_EQ(ReadReported("rubbish").version, 0u);
    EXPECT_EQ(ReadReported("rubbish").fingerprint, std::nullopt);
    EXPECT_EQ(ReadReported(R"({"state":{"a":1},"version":9,"timestamp":1})").version, 9u);
    EXPECT_EQ(ReadReported(R"({"state":{"a":1},"version":9,"timestamp":1})").fingerprint, std::nullopt);
    EXPECT_EQ(ReadReported(R"({"state":{},"version":18446744073709551615})").version, 0u);
}

TEST(PayloadTest, AWishIsReadWhole)
{
    const Desired merge = ReadDesired(R"( {"version": 7, "state": {"a": "1", "b": {"$base64": "/w=="}}} )");
    EXPECT_EQ(merge.state, StateOf({{"a", "1"}, {"b", "\xFF"}}));
    EXPECT_EQ(merge.version, 7u);
    EXPECT_FALSE(merge.replaces);
    EXPECT_FALSE(ReadDesired(R"({"state":{},"version":1,"mode":"merge"})").replaces);
    EXPECT_TRUE(ReadDesired(R"({"state":{},"version":9007199254740991,"mode":"replace"})").replaces);
}

struct FaultRow
{
    const char* payload;
    const char* message;
    std::optional<std::uint64_t> version;
};

const FaultRow Faults[] = {
    {"", "not JSON", {}},
    {"{", "not JSON", {}},
    {R"({"state":{},"version":7)", "not JSON", 7},
    {R"({"state":{},"version":7} x)", "not JSON", 7},
    {R"({"state":{"a":"\ud800"},"version":7})", "not JSON", {}},
    {"{\"state\":{\"a\":\"\xFF\"},\"version\":7}", "not JSON", {}},
    {"[]", "it is not an object", {}},
    {"7", "it is not an object", {}},
    {"\"x\"", "it is not an object", {}},
    {"null", "it is not an object", {}},
    {"{}", "\"state\" is missing", {}},
    {R"({"state":{}})", "\"version\" is missing", {}},
    {R"({"version":7})", "\"state\" is missing", 7},
    {R"({"state":{},"version":"7"})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":0})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":-1})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":1.0})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":9007199254740992})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":[7]})", "\"version\" is not an integer from 1", {}},
    {R"({"state":{},"version":7,"version":8})", "\"version\" comes twice", 7},
    {R"({"state":{},"state":{},"version":7})", "\"state\" comes twice", 7},
    {R"({"state":{"a":"1","a":"1"},"version":7})", "the key 'a' comes twice", 7},
    {R"({"state":"a","version":7})", "\"state\" is not an object", 7},
    {R"({"state":[],"version":7})", "\"state\" is not an object", 7},
    {R"({"state":null,"version":7})", "\"state\" is not an object", 7},
    {R"({"state":{"a":1},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":null},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":true},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":["x"]},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":{}},"version":7})", "an object without \"$base64\"", 7},
    {R"({"state":{"a":{"b":"c"}},"version":7})", "an object with more than \"$base64\"", 7},
    {R"({"state":{"a":{"$base64":"eA==","b":"c"}},"version":7})", "an object with more than \"$base64\"", 7},
    {R"({"state":{"a":{"$base64":"eA==","$base64":"eA=="}},"version":7})", "an object with more than \"$base64\"", 7},
    {R"({"state":{"a":{"$base64":1}},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":{"$base64":{"$base64":"eA=="}}},"version":7})", "the value of 'a' is neither a string nor", 7},
    {R"({"state":{"a":{"$base64":"x"}},"version":7})", "the \"$base64\" of 'a' is not base64", 7},
    {R"({"state":{},"version":7,"mode":"set"})", "\"mode\" is neither \"merge\" nor \"replace\"", 7},
    {R"({"state":{},"version":7,"mode":1})", "\"mode\" has the wrong type", 7},
    {R"({"state":{},"version":7,"mod":"replace"})", "there is no member 'mod'", 7},
    {R"({"x":{"version":9,"state":[[{}]]},"state":{},"version":7})", "there is no member 'x'", 7},
};

TEST(PayloadTest, AWishThatMakesNoSenseIsRefusedWithTheReason)
{
    for (const FaultRow& row : Faults)
    {
        SCOPED_TRACE(row.payload);
        try
        {
            ReadDesired(row.payload);
            FAIL() << "it was read";
        }
        catch (const PayloadFault& fault)
        {
            EXPECT_THAT(fault.message, HasSubstr(row.message));
            EXPECT_EQ(fault.version, row.version);
        }
    }
}

TEST(PayloadTest, AHundredThousandLevelsCostNothing)
{
    const std::string deep(100'000, '[');
    EXPECT_THROW(ReadDesired(deep), PayloadFault);
    EXPECT_THROW(ReadDesired(R"({"state":)" + deep), PayloadFault);
    EXPECT_THROW(ReadDesired(R"({"state":{"a":)" + deep + std::string(100'000, ']') + R"(},"version":7})"),
                 PayloadFault);
}

TEST(PayloadTest, StatusTellsWhetherTheDeviceIsThere)
{
    EXPECT_EQ(StatusPayload(true, "S", false),
              R"({"online":true,"session":"S","settings":false,"version":")" KORLO_VERSION R"("})");
    EXPECT_EQ(OnlineSession(StatusPayload(true, "S", false)), "S");
    EXPECT_EQ(OnlineSession(R"({"online":true})"), "");
    EXPECT_EQ(OnlineSession(StatusPayload(false, "S", true)), std::nullopt);
    for (const char* rubbish : {"", "x", "[]", "{}", R"({"online":"true"})", R"({"online":1})"})
    {
        EXPECT_EQ(OnlineSession(rubbish), std::nullopt) << rubbish;
    }
}

TEST(PayloadTest, AnswersTellWhatBecameOfAWish)
{
    EXPECT_EQ(AcceptedPayload(7), R"({"version":7})");
    EXPECT_EQ(RejectedPayload({7, Rejection::NotAllowed, "no", 3}), R"({"version":7,"code":403,"message":"no"})");
    EXPECT_EQ(RejectedPayload({std::nullopt, Rejection::TooLarge, "no", 0}),
              R"({"version":null,"code":413,"message":"no"})");
    EXPECT_EQ(RejectedPayload({2, Rejection::Outdated, "old", 3}),
              R"({"version":2,"code":409,"message":"old","applied":3})");
    EXPECT_THAT(RejectedPayload({2, Rejection::MakesNoSense, "\xFF", 0}), HasSubstr("\xEF\xBF\xBD"));
}

}  // namespace
}  // namespace korlo::settings::mqtt

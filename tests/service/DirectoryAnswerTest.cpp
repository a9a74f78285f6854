#include "quorlix/service/DirectoryAnswer.h"

#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;

namespace {

// What a reader makes of an answer: a text, or a stop whose message matches a pattern.
struct Outcome
{
    std::optional<QString> text;
    const char* stop = nullptr;
};

Outcome text(const char* value)
{
    return {QString::fromUtf8(value), nullptr};
}

Outcome stops(const char* pattern)
{
    return {std::nullopt, pattern};
}

constexpr const char* indexStop = "fatal error: Index out of range";
constexpr const char* unknownKeyStop = "not key value coding-compliant for the key";

struct AnswerCase
{
    const char* name;
    const char* json;
    Outcome majorMinor;       // textMember(answer, "MajorMinor")
    Outcome key;              // deviceKey(answer)
    QStringList printed = {}; // what deviceKey logs
};

class Readers : public testing::TestWithParam<AnswerCase>
{};

TEST_P(Readers, ReadTextMembersAndKeysByTheLookupRules)
{
    const AnswerCase& c = GetParam();
    const QVariant answer = DirectoryAnswer::parse(QByteArray(c.json));

    if (c.majorMinor.stop)
        EXPECT_DEATH(DirectoryAnswer::textMember(answer, "MajorMinor"), c.majorMinor.stop);
    else
        EXPECT_EQ(DirectoryAnswer::textMember(answer, "MajorMinor"), *c.majorMinor.text);

    if (c.key.stop) {
        EXPECT_DEATH(DirectoryAnswer::deviceKey(answer), c.key.stop);
    } else {
        StdoutCapture capture;
        const QString key = DirectoryAnswer::deviceKey(answer);
        EXPECT_EQ(capture.lines(), c.printed);
        EXPECT_EQ(key, *c.key.text);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Answers, Readers,
    testing::Values(
        AnswerCase{"Record",
                   R"({"Key":1047,"MajorMinor":"12-7","Type":"Door"})",
                   text("12-7"),
                   text("1047"),
                   {"1047"}},
        AnswerCase{"ArrayOfOneRecord",
                   R"([{"Key":1047,"MajorMinor":"12-7"}])",
                   text("12-7"),
                   text("1047"),
                   {"[1047]"}},
        AnswerCase{"ArrayWhoseSecondRecordLacksTheMembers",
                   R"([{"Key":5,"MajorMinor":"1-2"},{}])",
                   text("1-2"),
                   text("5"),
                   {"[5,null]"}},
        AnswerCase{"ArrayWhoseFirstRecordLacksTheMembers", R"([{},{"Key":5,"MajorMinor":"1-2"}])",
                   stops("Could not cast value of type 'Null' to 'String'"),
                   stops("Could not cast value of type 'Null' to 'Int'")},
        AnswerCase{"EmptyArray", "[]", stops(indexStop), text(""), {"[]"}},
        AnswerCase{"MembersOfTheWrongKind", R"({"Key":"1047","MajorMinor":5})", text(""), text("")},
        AnswerCase{"NullMembers", R"({"Key":null,"MajorMinor":null})", text(""), text("")},
        AnswerCase{"RecordMembers", R"({"Key":{"n":1},"MajorMinor":{"t":"1-2"}})", text(""),
                   text("")},
        AnswerCase{"BooleanKeyIsNotANumber", R"({"Key":true})", text(""), text("")},
        AnswerCase{"NoMembers", "{}", text(""), text("")},
        AnswerCase{
            "FractionalKeyIsTruncated", R"({"Key":1047.9})", text(""), text("1047"), {"1047.9"}},
        AnswerCase{"NegativeKey", R"({"Key":-3})", text(""), text("-3"), {"-3"}},
        AnswerCase{"HugeKeySaturates",
                   R"({"Key":18446744073709551615})",
                   text(""),
                   text("9223372036854775807"),
                   {"18446744073709551615"}},
        AnswerCase{"MembersThatAreArrays",
                   R"({"Key":[7,8],"MajorMinor":["3-4","5-6"]})",
                   text("3-4"),
                   text("7"),
                   {"[7,8]"}},
        AnswerCase{"ArrayMemberWithANumberFirst", R"({"Key":["7"],"MajorMinor":[5]})",
                   stops("Could not cast value of type 'Number' to 'String'"),
                   stops("Could not cast value of type 'String' to 'Int'")},
        AnswerCase{"ArrayMemberThatIsEmpty",
                   R"({"Key":[],"MajorMinor":[]})",
                   stops(indexStop),
                   text(""),
                   {"[]"}},
        AnswerCase{"NestedArrays", R"([[{"Key":5,"MajorMinor":"1-2"}]])",
                   stops("Could not cast value of type 'Array' to 'String'"),
                   stops("Could not cast value of type 'Array' to 'Int'")},
        AnswerCase{"TextFragment", R"("12-7")", stops(unknownKeyStop), stops(unknownKeyStop)},
        AnswerCase{"NumberFragment", "1047", stops(unknownKeyStop), stops(unknownKeyStop)},
        AnswerCase{"ArrayOfNumbers", "[1,2]", stops(unknownKeyStop), stops(unknownKeyStop)}),
    [](const testing::TestParamInfo<AnswerCase>& info) { return info.param.name; });

TEST(DirectoryAnswer, MemberLookupMapsArraysElementByElement)
{
    const QVariant answer = DirectoryAnswer::parse(R"([{"Key":1},{"Other":2},{"Key":"x"}])");
    const std::optional<QVariant> keys = DirectoryAnswer::member(answer, "Key");
    ASSERT_TRUE(keys.has_value());
    EXPECT_EQ(DirectoryAnswer::describe(*keys), R"([1,null,"x"])");
    EXPECT_FALSE(DirectoryAnswer::member(DirectoryAnswer::parse("{}"), "Key").has_value());
    // A member that is present but null is a value, not absence.
    const std::optional<QVariant> null =
        DirectoryAnswer::member(DirectoryAnswer::parse(R"({"Key":null})"), "Key");
    ASSERT_TRUE(null.has_value());
    EXPECT_TRUE(DirectoryAnswer::isNull(*null));
}

TEST(DirectoryAnswerDeathTest, AnythingButJsonStops)
{
    constexpr const char* nil =
        "fatal error: unexpectedly found nil while unwrapping an Optional value";
    for (const char* body : {"", "not json", "{", "[1,]", "{\"Key\":1} trailing", "\"\xff\""})
        EXPECT_DEATH(DirectoryAnswer::parse(QByteArray(body)), nil) << body;
}

} // namespace

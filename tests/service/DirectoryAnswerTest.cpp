#include "quorlix/service/DirectoryAnswer.h"

#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;

namespace {

// What a reader makes of an answer: a text, or a stop whose message matches a pattern.
struct Outcome
{
    const char *text, *stop;
};
constexpr const char* indexStop = "fatal error: Index out of range";
constexpr const char* unknownKeyStop = "not key value coding-compliant for the key";
TEST(DirectoryAnswerDeathTest, ReadersFollowTheLookupRules)
{
    const auto text = [](const char* value) { return Outcome{value, nullptr}; };
    const auto stops = [](const char* pattern) { return Outcome{nullptr, pattern}; };
    // MajorMinor = textMember(answer, "MajorMinor"); key = deviceKey(answer), which logs a line.
    const struct
    {
        const char* json;
        Outcome majorMinor;
        Outcome key;
        QStringList printed = {};
    } cases[] = {
        {R"({"Key":1047,"MajorMinor":"12-7","Type":"Door"})", text("12-7"), text("1047"), {"1047"}},
        {R"([{"Key":1047,"MajorMinor":"12-7"}])", text("12-7"), text("1047"), {"[1047]"}},
        {R"([{"Key":5,"MajorMinor":"1-2"},{}])", text("1-2"), text("5"), {"[5,null]"}},
        {R"([{},{"Key":5,"MajorMinor":"1-2"}])", stops("value of type 'Null' to 'String'"),
         stops("value of type 'Null' to 'Int'")},
        {"[]", stops(indexStop), text(""), {"[]"}},
        {R"({"Key":"1047","MajorMinor":5})", text(""), text("")},
        {R"({"Key":null,"MajorMinor":null})", text(""), text("")},
        {R"({"Key":true,"MajorMinor":{"t":"1-2"}})", text(""), text("")},
        {"{}", text(""), text("")},
        {R"({"Key":1047.9})", text(""), text("1047"), {"1047.9"}},
        {R"({"Key":-3})", text(""), text("-3"), {"-3"}},
        {R"({"Key":18446744073709551615})",
         text(""),
         text("9223372036854775807"),
         {"18446744073709551615"}},
        {R"({"Key":[7,8],"MajorMinor":["3-4","5-6"]})", text("3-4"), text("7"), {"[7,8]"}},
        {R"({"Key":["7"],"MajorMinor":[5]})", stops("value of type 'Number' to 'String'"),
         stops("value of type 'String' to 'Int'")},
        {R"({"Key":[],"MajorMinor":[]})", stops(indexStop), text(""), {"[]"}},
        {R"([[{"Key":5,"MajorMinor":"1-2"}]])", stops("value of type 'Array' to 'String'"),
         stops("value of type 'Array' to 'Int'")},
        {R"("12-7")", stops(unknownKeyStop), stops(unknownKeyStop)},
        {"[1,2]", stops(unknownKeyStop), stops(unknownKeyStop)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const QVariant answer = DirectoryAnswer::parse(QByteArray(c.json));
        if (c.majorMinor.stop)
            EXPECT_DEATH(DirectoryAnswer::textMember(answer, "MajorMinor"), c.majorMinor.stop);
        else
            EXPECT_EQ(DirectoryAnswer::textMember(answer, "MajorMinor"), c.majorMinor.text);
        if (c.key.stop) {
            EXPECT_DEATH(DirectoryAnswer::deviceKey(answer), c.key.stop);
            continue;
        }
        StdoutCapture capture;
        const QString key = DirectoryAnswer::deviceKey(answer);
        EXPECT_EQ(capture.lines(), c.printed);
        EXPECT_EQ(key, c.key.text);
    }
    for (const char* body : {"", "not json", "{", "[1,]", "{\"Key\":1} trailing", "\"\xff\""})
        EXPECT_DEATH(DirectoryAnswer::parse(QByteArray(body)),
                     "fatal error: unexpectedly found nil while unwrapping an Optional value")
            << body;
}

} // namespace

#include "quorlix/service/DirectoryAnswer.h"

#include "StdoutCapture.h"

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;

namespace {

// What a reader makes of an answer: a text, or after "!" a pattern of the message it stops with.
constexpr const char* indexStop = "!fatal error: Index out of range";
constexpr const char* unknownKeyStop = "!not key value coding-compliant for the key";
TEST(DirectoryAnswerDeathTest, ReadersFollowTheLookupRules)
{
    // MajorMinor = textMember(answer, "MajorMinor"); key = deviceKey(answer), which logs a line.
    const struct
    {
        const char *json, *majorMinor, *key;
        QStringList printed = {};
    } cases[] = {
        {R"({"Key":1047,"MajorMinor":"12-7","Type":"Door"})", "12-7", "1047", {"1047"}},
        {R"([{"Key":1047,"MajorMinor":"12-7"}])", "12-7", "1047", {"[1047]"}},
        {R"([{"Key":5,"MajorMinor":"1-2"},{}])", "1-2", "5", {"[5,null]"}},
        {R"([{},{"Key":5,"MajorMinor":"1-2"}])", "!value of type 'Null' to 'String'",
         "!value of type 'Null' to 'Int'"},
        {"[]", indexStop, "", {"[]"}},
        {R"({"Key":"1047","MajorMinor":5})", "", ""},
        {R"({"Key":null,"MajorMinor":null})", "", ""},
        {R"({"Key":true,"MajorMinor":{"t":"1-2"}})", "", ""},
        {"{}", "", ""},
        {R"({"Key":1047.9})", "", "1047", {"1047.9"}},
        {R"({"Key":-3})", "", "-3", {"-3"}},
        {R"({"Key":18446744073709551615})", "", "9223372036854775807", {"18446744073709551615"}},
        {R"({"Key":[7,8],"MajorMinor":["3-4","5-6"]})", "3-4", "7", {"[7,8]"}},
        {R"({"Key":["7"],"MajorMinor":[5]})", "!value of type 'Number' to 'String'",
         "!value of type 'String' to 'Int'"},
        {R"({"Key":[],"MajorMinor":[]})", indexStop, "", {"[]"}},
        {R"([[{"Key":5,"MajorMinor":"1-2"}]])", "!value of type 'Array' to 'String'",
         "!value of type 'Array' to 'Int'"},
        {R"("12-7")", unknownKeyStop, unknownKeyStop},
        {"[1,2]", unknownKeyStop, unknownKeyStop},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const QVariant answer = DirectoryAnswer::parse(QByteArray(c.json));
        if (c.majorMinor[0] == '!')
            EXPECT_DEATH(DirectoryAnswer::textMember(answer, "MajorMinor"), c.majorMinor + 1);
        else
            EXPECT_EQ(DirectoryAnswer::textMember(answer, "MajorMinor"), c.majorMinor);
        if (c.key[0] == '!') {
            EXPECT_DEATH(DirectoryAnswer::deviceKey(answer), c.key + 1);
            continue;
        }
        StdoutCapture capture;
        const QString key = DirectoryAnswer::deviceKey(answer);
        EXPECT_EQ(capture.lines(), c.printed);
        EXPECT_EQ(key, c.key);
    }
    for (const char* body : {"", "not json", "{", "[1,]", "{\"Key\":1} trailing", "\"\xff\""})
        EXPECT_DEATH(DirectoryAnswer::parse(QByteArray(body)),
                     "fatal error: unexpectedly found nil while unwrapping an Optional value")
            << body;
}

} // namespace

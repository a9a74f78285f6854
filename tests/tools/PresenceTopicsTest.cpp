// Topic names: every room and beacon keeps a topic of its own, in the characters that MQTT topics
// and Home Assistant object IDs accept, and the common names stay as people wrote them.

#include "PresenceTopics.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

using QuorlixTool::PresenceTopics;

// The reverse of the mapping as its documentation states it; a slug it cannot read is an error.
std::optional<QString> unslug(const QString& slug)
{
    const auto hex = [&slug](qsizetype i) {
        return i < slug.size() && QStringLiteral("0123456789ABCDEF").contains(slug[i]);
    };
    QByteArray utf8;
    for (qsizetype i = 0; i < slug.size(); ++i) {
        if (slug[i] != u'_') {
            utf8 += slug[i].toLatin1();
        } else if (hex(i + 1) && hex(i + 2)) {
            utf8 += QByteArray::fromHex(slug.mid(i + 1, 2).toLatin1());
            i += 2;
        } else {
            utf8 += ' ';
        }
    }
    return QString::fromUtf8(utf8);
}

TEST(PresenceTopics, SlugsAreReadableAndOneToOne)
{
    const std::pair<const char*, const char*> readable[] = {
        {"kitchen", "kitchen"},
        {"Test room", "Test_room"},
        {"12-7", "12-7"},
        {"Living Room ü", "Living_Room__C3_BC"},
        {"Living Room ä", "Living_Room__C3_A4"},
        {"a_b", "a_5Fb"},
        {"Room 12", "Room_2012"},
        {"Room 1", "Room_1"},
    };
    for (const auto& [text, slug] : readable)
        EXPECT_EQ(PresenceTopics::slug(QString::fromUtf8(text)), QLatin1StringView(slug)) << text;

    const QStringList tricky{"a b",    "a_b",    "a__b", "a  b",   "a_20b",   "a 20b",    "a\t",
                             "a/b",    "a+#",    " ",    "  ",     "_",       "__",       " A",
                             " AB",    "_AB",    "a-b",  "a--b",   "ü",       "ä",        "日本",
                             "🙂 x", "x 🙂", "-",    "Room 1", "Room 12", "Room_2012"};
    static const QRegularExpression alphabet(QStringLiteral("^[A-Za-z0-9_-]+$"));
    QHash<QString, QString> seen;
    for (const QString& text : tricky) {
        const QString slug = PresenceTopics::slug(text);
        EXPECT_TRUE(alphabet.match(slug).hasMatch()) << slug.toStdString();
        EXPECT_EQ(unslug(slug), text) << slug.toStdString();
        EXPECT_FALSE(seen.contains(slug))
            << slug.toStdString() << " also for " << seen.value(slug).toStdString();
        seen.insert(slug, text);
    }
    const PresenceTopics one(QStringLiteral("Living Room ü")),
        other(QStringLiteral("Living Room ä"));
    EXPECT_NE(one.state(QStringLiteral("12-7")), other.state(QStringLiteral("12-7")));
    EXPECT_EQ(one.availability(), "quorlix/Living_Room__C3_BC/availability");
}

} // namespace

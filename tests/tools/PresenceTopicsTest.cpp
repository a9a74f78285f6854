// Topic names: every room and beacon keeps a topic of its own, in the characters that MQTT topics
// and Home Assistant object IDs accept, and common names stay as people wrote them.

#include "PresenceTopics.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

TEST(PresenceTopics, SlugsAreReadableAndOneToOne)
{
    using QuorlixTool::PresenceTopics;
    EXPECT_EQ(PresenceTopics::slug(QStringLiteral("Test room")), u"Test_room");
    EXPECT_EQ(PresenceTopics::slug(QStringLiteral("300-12")), u"300-12");
    EXPECT_EQ(PresenceTopics::slug(QStringLiteral("Living Room ü")), u"Living_Room__C3_BC");
    EXPECT_EQ(PresenceTopics::slug(QStringLiteral("Room 12")), u"Room_2012");
    // Names that a lossy mapping would merge: spaces against codes, '_' against ' '.
    const QStringList tricky{"a b",    "a_b",     "a__b",      "a  b",    "a_20b", "a 20b",
                             "a\t",    "a/b+#",   " ",         "  ",      "_",     " AB",
                             "_AB",    "a--b",    "ü",         "ä",       "日本",  "🙂 x",
                             "Room 1", "Room 12", "Room_2012", "Room 12 "};
    static const QRegularExpression alphabet(QStringLiteral("^[A-Za-z0-9_-]+$"));
    QHash<QString, QString> seen;
    for (const QString& text : tricky) {
        const QString slug = PresenceTopics::slug(text);
        EXPECT_TRUE(alphabet.match(slug).hasMatch()) << slug.toStdString();
        EXPECT_FALSE(seen.contains(slug)) << slug.toStdString();
        seen.insert(slug, text);
    }
}

} // namespace

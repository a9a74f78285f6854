#include "quorlix/platform/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Quorlix;

namespace {

class UserDefaultsTest : public testing::Test
{
protected:
    QTemporaryDir dir;
    QString file = dir.filePath(QStringLiteral("app/app.json"));

    void writeRaw(const QByteArray& bytes)
    {
        QDir().mkpath(dir.filePath(QStringLiteral("app")));
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(bytes);
    }

    struct stat status() const
    {
        struct stat info
        {};
        EXPECT_EQ(::stat(QFile::encodeName(file).constData(), &info), 0);
        return info;
    }
};

} // namespace

TEST_F(UserDefaultsTest, ListsReadBackExactlyAndEmptyStaysApartFromAbsent)
{
    // The shapes that Qt's own INI format gets wrong: empty, one element, commas, quotes.
    const QList<QStringList> lists = {
        {},
        {"1047"},
        {"1047", "1047"},
        {"a,b", " spaced ", "\"quoted\"", "@Invalid()", "ünï"},
    };
    UserDefaults defaults(file);
    EXPECT_EQ(defaults.stringArray("Keys"), std::nullopt);
    for (const QStringList& list : lists) {
        ASSERT_TRUE(defaults.setStringArray("Keys", list));
        const std::optional<QStringList> read = UserDefaults(file).stringArray("Keys");
        ASSERT_TRUE(read.has_value()) << list.join('|').toStdString();
        EXPECT_EQ(*read, list);
    }
    EXPECT_EQ(defaults.stringArray("Other"), std::nullopt);
}

TEST_F(UserDefaultsTest, ValuesThatAreNotListsOfTextsReadAsNoList)
{
    writeRaw(R"({"Text": "1047", "Number": 1047, "Mixed": ["1047", 1048], "Record": {"a": "b"},
                 "Null": null, "Empty": [], "List": ["1047"]})");
    UserDefaults defaults(file);
    for (const char* key : {"Text", "Number", "Mixed", "Record", "Null"})
        EXPECT_EQ(defaults.stringArray(key), std::nullopt) << key;
    EXPECT_EQ(defaults.stringArray("Empty"), QStringList());
    EXPECT_EQ(defaults.stringArray("List"), QStringList({"1047"}));

    // A write of one entry keeps the others, whatever their kind.
    ASSERT_TRUE(defaults.setStringArray("List", {"2001"}));
    EXPECT_EQ(defaults.stringArray("Empty"), QStringList());
    EXPECT_EQ(defaults.stringArray("List"), QStringList({"2001"}));
    QFile in(file);
    ASSERT_TRUE(in.open(QIODevice::ReadOnly));
    const QByteArray saved = in.readAll();
    EXPECT_TRUE(saved.contains("\"Mixed\"")) << saved.constData();
    EXPECT_TRUE(saved.contains("\"Record\"")) << saved.constData();
}

TEST_F(UserDefaultsTest, EverySaveReplacesAnOwnerOnlyFileWhole)
{
    writeRaw(R"({"Keys": ["1047"]})");
    ASSERT_EQ(::chmod(QFile::encodeName(file).constData(), 0644), 0);
    const ino_t before = status().st_ino;

    UserDefaults defaults(file);
    ASSERT_TRUE(defaults.setStringArray("Keys", {"1047", "1048"}));
    // A new inode: the save was written aside and renamed over the store, never into it.
    EXPECT_NE(status().st_ino, before);
    EXPECT_EQ(status().st_mode & 0777, 0600u);
    EXPECT_EQ(QDir(dir.filePath("app")).entryList(QDir::Files), QStringList({"app.json"}));

    const QString fresh = dir.filePath(QStringLiteral("new/app.json"));
    ASSERT_TRUE(UserDefaults(fresh).setStringArray("Keys", {}));
    struct stat info
    {};
    ASSERT_EQ(::stat(QFile::encodeName(fresh).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(UserDefaultsTest, AnUnreadableStoreIsKeptAsideNotOverwritten)
{
    writeRaw("{\"Keys\": [\"1047\"");
    UserDefaults defaults(file);
    EXPECT_EQ(defaults.stringArray("Keys"), std::nullopt);

    ASSERT_TRUE(defaults.setStringArray("Keys", {"2001"}));
    EXPECT_EQ(defaults.stringArray("Keys"), QStringList({"2001"}));
    const QStringList aside =
        QDir(dir.filePath("app")).entryList({"app.json.unreadable-*"}, QDir::Files);
    ASSERT_EQ(aside.size(), 1);
    QFile kept(dir.filePath("app/" + aside.first()));
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), "{\"Keys\": [\"1047\"");
}

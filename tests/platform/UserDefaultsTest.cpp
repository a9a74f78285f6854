#include "quorlix/platform/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Quorlix;

namespace {

struct stat statusOf(const QString& file)
{
    struct stat info
    {};
    EXPECT_EQ(::stat(QFile::encodeName(file).constData(), &info), 0);
    return info;
}

void writeRaw(const QString& file, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(file).path());
    QFile out(file);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
    out.write(bytes);
}

} // namespace

TEST(UserDefaults, KeepsListsExactlyAndReadsAnythingElseAsNoList)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("app/app.json");
    writeRaw(file, R"({"Text": "1047", "Number": 1047, "Mixed": ["1047", 1048], "Null": null})");
    UserDefaults defaults(file);
    for (const char* key : {"Text", "Number", "Mixed", "Null", "Missing"})
        EXPECT_EQ(defaults.stringArray(key), std::nullopt) << key;

    // The shapes that Qt's INI format gets wrong: empty, one element, commas, quotes.
    for (const QStringList& list : QList<QStringList>{
             {}, {"1047"}, {"1047", "1047"}, {"a,b", " x ", "\"q\"", "@Invalid()", "ü"}}) {
        ASSERT_TRUE(defaults.setStringArray("Keys", list));
        EXPECT_EQ(UserDefaults(file).stringArray("Keys"), list);
    }
    // A save of one entry keeps the others, whatever their kind.
    QFile saved(file);
    ASSERT_TRUE(saved.open(QIODevice::ReadOnly));
    const QByteArray json = saved.readAll();
    EXPECT_TRUE(json.contains(R"("Mixed")") && json.contains(R"("Text")")) << json.constData();
}

TEST(UserDefaults, SavesReplaceAnOwnerOnlyFileAndKeepAnUnreadableOneAside)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("app/app.json");
    writeRaw(file, R"({"Keys": ["1047")");
    ASSERT_EQ(::chmod(QFile::encodeName(file).constData(), 0644), 0);
    const ino_t before = statusOf(file).st_ino;

    UserDefaults defaults(file);
    EXPECT_EQ(defaults.stringArray("Keys"), std::nullopt);
    ASSERT_TRUE(defaults.setStringArray("Keys", {"2001"}));
    EXPECT_EQ(defaults.stringArray("Keys"), QStringList({"2001"}));
    // A new inode: written aside and renamed over the store, never into it.
    EXPECT_NE(statusOf(file).st_ino, before);
    EXPECT_EQ(statusOf(file).st_mode & 0777, 0600u);

    const QStringList aside = QDir(dir.filePath("app")).entryList({"app.json.unreadable-*"});
    ASSERT_EQ(aside.size(), 1);
    QFile kept(dir.filePath("app/" + aside.first()));
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), R"({"Keys": ["1047")");

    const QString fresh = dir.filePath("new/app.json");
    ASSERT_TRUE(UserDefaults(fresh).setStringArray("Keys", {}));
    EXPECT_EQ(statusOf(fresh).st_mode & 0777, 0600u);
}

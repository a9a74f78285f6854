#include "quorlix/platform/UserDefaults.h"

#include "Files.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>

using namespace Quorlix;
using Quorlix::Testing::writeFile;

namespace {

QByteArray contents(const QString& file)
{
    QFile in(file);
    return in.open(QIODevice::ReadOnly) ? in.readAll() : "(unreadable)";
}

} // namespace

TEST(UserDefaults, OnlyAnArrayOfTextsIsAListAndAnEmptyOneIsNotAbsence)
{
    QTemporaryDir dir;
    const QString file =
        writeFile(dir.path(), "app.json",
                  R"({"Text": "1047", "Number": 1047, "Mixed": ["1047", 1048], "Null": null,
                       "Empty": [], "One": ["1047"]})");
    const UserDefaults defaults(file);
    for (const char* key : {"Text", "Number", "Mixed", "Null", "Missing"})
        EXPECT_EQ(defaults.stringArray(key), std::nullopt) << key;
    EXPECT_EQ(defaults.stringArray("Empty"), QStringList());
    EXPECT_EQ(defaults.stringArray("One"), QStringList({"1047"}));
    EXPECT_EQ(
        UserDefaults(writeFile(dir.path(), "bad.json", R"({"Keys": ["1047")")).stringArray("Keys"),
        std::nullopt);

    // The shapes that Qt's INI format gets wrong: empty, one element, commas, quotes.
    for (const QStringList& list : QList<QStringList>{
             {}, {"1047"}, {"1047", "1047"}, {"a,b", " x ", "\"q\"", "@Invalid()", "ü"}}) {
        ASSERT_TRUE(UserDefaults(file).setStringArray("Keys", list));
        EXPECT_EQ(UserDefaults(file).stringArray("Keys"), list);
    }
    // A save of one entry keeps the others, whatever their kind.
    EXPECT_EQ(UserDefaults(file).stringArray("One"), QStringList({"1047"}));
    const QByteArray json = contents(file);
    EXPECT_TRUE(json.contains(R"("Mixed")") && json.contains(R"("Text")")) << json.constData();
}

// Faults: a save that cannot be written in full must leave the old store, and what killed or
// failed saves leave behind must not pile up.
TEST(UserDefaultsFaults, AFailedWriteKeepsTheOldStoreAndReturnsFalse)
{
    // A write that fails part-way, as on a full disk: here at a file size limit (EFBIG; without
    // SIGXFSZ ignored the process would die).
    QTemporaryDir dir;
    const QString file = dir.filePath("app/app.json");
    UserDefaults defaults(file);
    ASSERT_TRUE(defaults.setStringArray("Keys", {"1047", "1048"}));
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    rlimit previousLimit{};
    ::getrlimit(RLIMIT_FSIZE, &previousLimit);
    const rlimit small{rlim_t(QFileInfo(file).size() + 8), previousLimit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool saved = defaults.setStringArray("Keys", QStringList(2000, "2001"));
    ::setrlimit(RLIMIT_FSIZE, &previousLimit);
    ::signal(SIGXFSZ, previousHandler);

    EXPECT_FALSE(saved);
    EXPECT_EQ(UserDefaults(file).stringArray("Keys"), QStringList({"1047", "1048"}));
    EXPECT_TRUE(contents(file).endsWith("\"1048\"\n    ]\n}\n"));
    EXPECT_EQ(QDir(dir.filePath("app")).entryList(QDir::Files), QStringList{"app.json"});
}

TEST(UserDefaultsFaults, LeftoversOfKilledSavesAndUnreadableCopiesAreBounded)
{
    QTemporaryDir dir;
    const QString app = dir.filePath("app"), file = app + "/app.json";
    QDir().mkpath(app);
    // What a save killed before its rename leaves: a temporary file full of keys.
    for (const char* name : {"app.json.Ab12Cd", "app.json.XXXXXX"})
        writeFile(app, name, R"({"Keys": ["1047"]})");
    // Not ours: other names stay.
    writeFile(app, "app.json.backup", "{}");
    writeFile(app, "other.json.Ab12Cd", "{}");
    for (int i = 0; i < 6; ++i) {
        writeFile(app, "app.json", "not json " + QByteArray::number(i));
        ::chmod(QFile::encodeName(file).constData(), 0644); // not the mode a save must leave
        ASSERT_TRUE(UserDefaults(file).setStringArray("Keys", {"1047"}));
    }
    struct stat info = {};
    EXPECT_TRUE(::stat(QFile::encodeName(file).constData(), &info) == 0 &&
                (info.st_mode & 0777) == 0600);
    QStringList files = QDir(app).entryList(QDir::Files);
    const QStringList copies = files.filter(".unreadable-");
    EXPECT_EQ(copies.size(), 3) << files.join(' ').toStdString();
    // The newest copies are the ones kept.
    EXPECT_EQ(contents(app + '/' + copies.last()), "not json 5");
    files.removeIf([](const QString& name) { return name.contains(".unreadable-"); });
    EXPECT_EQ(files, QStringList({"app.json", "app.json.backup", "other.json.Ab12Cd"}));
}

#include "KeyStoreCheck.h"

#include "DirectoryProcess.h"
#include "Files.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

using Quorlix::Testing::DirectoryProcess;
using QuorlixDemo::DirectoryProbe;
using QuorlixDemo::KeyStoreCheck;

// Keys the directory does not know (or that the library could not even ask for) move out of the
// loaded entry and come back once known; an unreachable service changes nothing.
TEST(KeyStoreCheck, SetsAsideWhatTheDirectoryDoesNotKnowAndRestoresWhatItKnowsAgain)
{
    QTemporaryDir dir;
    DirectoryProcess service(Quorlix::Testing::writeFile(dir.path(), "devices.json", R"([
        {"Key": 1047, "MajorMinor": "12-7"}, {"Key": 2001, "MajorMinor": "300-1"},
        {"Key": 5, "MajorMinor": "12-x"}, {"Key": 6}, {"Key": 8, "MajorMinor": "bad"}])"));
    const DirectoryProbe probe(service.host());

    Quorlix::UserDefaults store(dir.filePath("store.json"));
    ASSERT_TRUE(store.setStringArray("VeskDeviceManagerKeys", {"1047", "9999", "10/47", "8"}));
    ASSERT_TRUE(store.setStringArray("QuorlixDemoSetAsideKeys", {"2001", "5555"}));
    const KeyStoreCheck::Result result = KeyStoreCheck::run(probe, store);
    EXPECT_EQ(store.stringArray("VeskDeviceManagerKeys"), QStringList({"1047", "8", "2001"}));
    EXPECT_EQ(store.stringArray("QuorlixDemoSetAsideKeys"), QStringList({"9999", "10/47", "5555"}));
    ASSERT_EQ(result.notes.size(), 4) << result.notes.join('\n').toStdString();
    EXPECT_TRUE(result.notes[0].startsWith("set aside stored key 9999, not loaded: the directory"));
    EXPECT_TRUE(result.notes[1].contains("'10/47' is not a device ID"));
    EXPECT_EQ(result.notes[2], "restored stored key 2001: the directory knows it again");

    // An unreachable service is not mistaken for an unknown device, and changes nothing.
    const QString host = QStringLiteral("127.0.0.1:%1").arg(Quorlix::Testing::unusedPort());
    const KeyStoreCheck::Result unreachable = KeyStoreCheck::run(DirectoryProbe(host), store);
    EXPECT_TRUE(unreachable.problem.contains("does not answer") &&
                unreachable.problem.contains(host))
        << unreachable.problem.toStdString();
    EXPECT_EQ(store.stringArray("VeskDeviceManagerKeys"), QStringList({"1047", "8", "2001"}));
}

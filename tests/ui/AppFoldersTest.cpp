#include "ui/AppFolders.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/xattr.h>

namespace widmo {
namespace {

TEST(AppFoldersTest, namesArePercentEncodedAndResolveBackToTheFile) {
    const QUrl url = AppFolders::urlInDocumentsWithFileName("my recording #1 (ż).wav");
    EXPECT_TRUE(url.isValid());
    const QString text = url.toString(QUrl::FullyEncoded);
    EXPECT_TRUE(text.startsWith(AppFolders::documentDirectory().toString(QUrl::FullyEncoded)));
    EXPECT_TRUE(text.endsWith("my%20recording%20%231%20(%C5%BC).wav")) << text.toStdString();
    EXPECT_EQ(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
                  "/my recording #1 (ż).wav",
              url.toLocalFile());
}

TEST(AppFoldersTest, eachLocationIsItsOwnExistingFolder) {
    const QString docs = AppFolders::urlInDocumentsWithFileName("a").toLocalFile();
    const QString temp = AppFolders::urlInTempWithFileName("a").toLocalFile();
    const QString lib = AppFolders::urlInLibraryDirWithFileName("a").toLocalFile();
    EXPECT_NE(docs, temp);
    EXPECT_NE(temp, lib);
    // "Temporary" files live in the user's cache folder, which survives a reboot.
    EXPECT_EQ(QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/a", temp);
    for (const QString& f : {docs, temp, lib})
        EXPECT_TRUE(QFileInfo(f).dir().exists()) << f.toStdString();
}

TEST(AppFoldersTest, excludedFileCarriesTheBackupAttribute) {
    const QUrl url = AppFolders::urlInTempWithFileName("excluded.dat");
    QFile f(url.toLocalFile());
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.close();
    AppFolders::excludeFromBackupURL(url);
    char value[16] = {};
    const ssize_t n = ::getxattr(QFile::encodeName(f.fileName()).constData(),
                                 "user.xdg.robots.backup", value, sizeof value);
    if (n < 0 && errno == ENOTSUP)
        GTEST_SKIP() << "this file system keeps no user attributes";
    ASSERT_EQ(5, n);
    EXPECT_STREQ("false", value);
    AppFolders::excludeFromBackupURL(QUrl()); // no file: nothing happens
}

} // namespace
} // namespace widmo

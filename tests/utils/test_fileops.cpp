// File and directory helpers, on scratch folders of this machine.
#include "utils/fileops.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

using tovtest::fileMode;
using tovtest::readText;
using tovtest::TempDir;
using tovtest::writeText;
using Lines = std::vector<std::string>;

namespace {

// Runs with a known umask so that created modes are predictable.
class FileOps : public ::testing::Test {
protected:
    void SetUp() override { m_oldMask = umask(022); }
    void TearDown() override { umask(m_oldMask); }

    TempDir dir;

private:
    mode_t m_oldMask = 0;
};

void makeSparseFile(const std::string& path, off_t size)
{
    writeText(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

} // namespace

TEST_F(FileOps, ExistCopyRenameDelete)
{
    const std::string src = dir / "src.bin";
    const std::string binary("a\0b\r\nc\xff", 7);
    writeText(src, binary);

    EXPECT_TRUE(tovFileExist(src));
    EXPECT_FALSE(tovFileExist(dir / "missing"));

    EXPECT_TRUE(tovFileCopy(src, dir / "copy.bin", 12345));
    EXPECT_EQ(readText(dir / "copy.bin"), binary);

    EXPECT_TRUE(tovFileRename(dir / "copy.bin", dir / "moved.bin"));
    EXPECT_FALSE(tovFileExist(dir / "copy.bin"));
    EXPECT_EQ(readText(dir / "moved.bin"), binary);
    EXPECT_FALSE(tovFileRename(dir / "copy.bin", dir / "again.bin"));

    EXPECT_TRUE(tovFileDelete(dir / "moved.bin"));
    EXPECT_FALSE(tovFileExist(dir / "moved.bin"));
    EXPECT_FALSE(tovFileDelete(dir / "moved.bin"));
}

TEST_F(FileOps, CopyFromMissingSourceStillTruncatesDestination)
{
    const std::string dst = dir / "dst";
    writeText(dst, "old content");
    EXPECT_FALSE(tovFileCopy(dir / "missing", dst, 0));
    EXPECT_TRUE(tovFileExist(dst));
    EXPECT_EQ(readText(dst), "");

    EXPECT_FALSE(tovFileCopy(dst, dir / "no/such/folder/file", 0));
}

TEST_F(FileOps, CopyOfEmptyFileSucceeds)
{
    writeText(dir / "empty", "");
    EXPECT_TRUE(tovFileCopy(dir / "empty", dir / "empty.copy", 0));
    EXPECT_EQ(readText(dir / "empty.copy"), "");
}

TEST_F(FileOps, SizeInWholeDecimalMegabytes)
{
    makeSparseFile(dir / "f", 999999);
    EXPECT_EQ(tovFileSize(dir / "f"), 0.0f);
    makeSparseFile(dir / "f", 1000000);
    EXPECT_EQ(tovFileSize(dir / "f"), 1.0f);
    makeSparseFile(dir / "f", 2500000);
    EXPECT_EQ(tovFileSize(dir / "f"), 2.0f);
    EXPECT_EQ(tovFileSize(dir / "missing"), 0.0f);
}

TEST_F(FileOps, LineNumCountsNewlinesPlusOne)
{
    EXPECT_EQ(tovFileLineNum(dir / "missing"), 0);
    writeText(dir / "f", "");
    EXPECT_EQ(tovFileLineNum(dir / "f"), 1);
    writeText(dir / "f", "one\ntwo");
    EXPECT_EQ(tovFileLineNum(dir / "f"), 2);
    writeText(dir / "f", "one\ntwo\n");
    EXPECT_EQ(tovFileLineNum(dir / "f"), 3);
    writeText(dir / "f", "\n\n\n");
    EXPECT_EQ(tovFileLineNum(dir / "f"), 4);
}

TEST_F(FileOps, DirectoryCreateRenameExist)
{
    const std::string sub = dir / "sub";
    EXPECT_TRUE(tovDirCreate(sub));
    EXPECT_EQ(fileMode(sub), 0755u); // 0775 under umask 022
    EXPECT_FALSE(tovDirCreate(sub));
    EXPECT_FALSE(tovDirCreate(dir / "a/b/c")); // not recursive

    EXPECT_TRUE(tovDirExist(sub));
    writeText(dir / "file", "x");
    EXPECT_FALSE(tovDirExist(dir / "file"));
    EXPECT_FALSE(tovDirExist(dir / "missing"));

    EXPECT_TRUE(tovDirRename(sub, dir / "renamed"));
    EXPECT_TRUE(tovDirExist(dir / "renamed"));
    EXPECT_FALSE(tovDirRename(sub, dir / "other"));
    EXPECT_FALSE(tovDirRename(dir / "file", dir / "other")); // a file is not a directory
}

TEST_F(FileOps, DirDeleteReportsNonEmptyDirectoryAsDeleted)
{
    const std::string full = dir / "full";
    ASSERT_TRUE(tovDirCreate(full));
    writeText(full + "/inside", "x");
    EXPECT_TRUE(tovDirDelete(full));
    EXPECT_TRUE(tovDirExist(full));

    ASSERT_TRUE(tovDirCreate(dir / "empty"));
    EXPECT_TRUE(tovDirDelete(dir / "empty"));
    EXPECT_FALSE(tovDirExist(dir / "empty"));
    EXPECT_FALSE(tovDirDelete(dir / "empty"));
}

TEST_F(FileOps, DirCopyThroughShell)
{
    ASSERT_TRUE(tovDirCreate(dir / "tree"));
    ASSERT_TRUE(tovDirCreate(dir / "tree/inner"));
    writeText(dir / "tree/inner/f", "content");
    EXPECT_TRUE(tovDirCopy(dir / "tree", dir / "copy"));
    EXPECT_EQ(readText(dir / "copy/inner/f"), "content");
    EXPECT_FALSE(tovDirCopy(dir / "missing", dir / "copy2"));
    EXPECT_FALSE(tovDirExist(dir / "copy2"));
}

TEST_F(FileOps, WriteTruncatesOrAppendsWithoutAddingNewline)
{
    const std::string f = dir / "f";
    EXPECT_TRUE(writeToFile(f, "first", false, false));
    EXPECT_EQ(readText(f), "first");
    EXPECT_TRUE(writeToFile(f, "+second", true, false));
    EXPECT_EQ(readText(f), "first+second");
    EXPECT_TRUE(writeToFile(f, "new\n", false, false));
    EXPECT_EQ(readText(f), "new\n");
    EXPECT_TRUE(writeToFile(dir / "created-by-append", "x", true, false));
    EXPECT_EQ(readText(dir / "created-by-append"), "x");
    EXPECT_TRUE(writeToFile(f, "", false, false));
    EXPECT_EQ(readText(f), "");
}

TEST_F(FileOps, WriteMakesExecutableOnlyWhenTruncating)
{
    const std::string script = dir / "script";
    EXPECT_TRUE(writeToFile(script, "#!/bin/sh\n", false, true));
    EXPECT_EQ(fileMode(script), 0774u);

    const std::string plain = dir / "plain";
    ASSERT_TRUE(writeToFile(plain, "a", false, false));
    EXPECT_EQ(fileMode(plain), 0644u);
    EXPECT_TRUE(writeToFile(plain, "b", true, true));
    EXPECT_EQ(fileMode(plain), 0644u);
    EXPECT_EQ(readText(plain), "ab");
}

// Replacing a file keeps what it was: mode, owner, and a link stays a link whose file gets the text;
// the temporary file beside it does not stay.
TEST_F(FileOps, WriteReplacesKeepingModeOwnerAndLinks)
{
    const std::string starter = dir / "starter", link = dir / "link";
    writeText(starter, "TOV_BIN_NAME=tov_test\n");
    ASSERT_EQ(chmod(starter.c_str(), 0750), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(starter.c_str(), 1234, 5678), 0);
    }
    writeText(dir / "target", "old");
    ASSERT_EQ(symlink("target", link.c_str()), 0);

    EXPECT_TRUE(writeToFile(starter, "TOV_BIN_NAME=tovQT\n", false, false));
    EXPECT_TRUE(writeToFile(link, "through", false, false));

    EXPECT_EQ(readText(starter), "TOV_BIN_NAME=tovQT\n");
    struct stat st {};
    ASSERT_EQ(stat(starter.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    if (root) {
        EXPECT_EQ(std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid), "1234:5678");
    }
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(readText(dir / "target"), "through");
    EXPECT_EQ(getDirFilesList(dir / ".[!.]*"), Lines{});
}

TEST_F(FileOps, WriteFailures)
{
    EXPECT_FALSE(writeToFile("", "text", false, false));
    EXPECT_FALSE(writeToFile("", "text", true, true));
    EXPECT_FALSE(writeToFile(dir / "no/such/folder/f", "text", false, false));
    EXPECT_FALSE(writeToFile(dir.path(), "text", false, false)); // a directory
    // Opens fine but every write fails, as on a full disk: nothing may pass for stored.
    EXPECT_FALSE(writeToFile("/dev/full", "text", true, false));
}

TEST_F(FileOps, ReadAllAppendsEveryLineAsItStands)
{
    const std::string f = dir / "f";
    writeText(f, "one\r\n\nthree");
    Lines lines{"kept"};
    EXPECT_TRUE(readFile_All(f, lines));
    EXPECT_EQ(lines, (Lines{"kept", "one\r", "", "three"}));

    writeText(f, "a\nb\n");
    Lines endsWithNewline;
    EXPECT_TRUE(readFile_All(f, endsWithNewline));
    EXPECT_EQ(endsWithNewline, (Lines{"a", "b"}));

    Lines untouched{"x"};
    EXPECT_FALSE(readFile_All(dir / "missing", untouched));
    EXPECT_FALSE(readFile_All("", untouched));
    EXPECT_EQ(untouched, Lines{"x"});
}

TEST_F(FileOps, ReadLinesNumAlwaysAppendsNEntries)
{
    const std::string f = dir / "f";
    writeText(f, "a\nb\n");
    Lines lines{"kept"};
    EXPECT_TRUE(readFile_LinesNum(f, 4, lines));
    EXPECT_EQ(lines, (Lines{"kept", "a", "b", "", ""}));

    writeText(f, "a\nb");
    Lines repeated;
    EXPECT_TRUE(readFile_LinesNum(f, 4, repeated));
    EXPECT_EQ(repeated, (Lines{"a", "b", "b", "b"}));

    writeText(f, "1\n0\n192.0.2.10\nextra\n");
    Lines firstThree;
    EXPECT_TRUE(readFile_LinesNum(f, 3, firstThree));
    EXPECT_EQ(firstThree, (Lines{"1", "0", "192.0.2.10"}));

    writeText(f, "");
    Lines fromEmpty;
    EXPECT_TRUE(readFile_LinesNum(f, 2, fromEmpty));
    EXPECT_EQ(fromEmpty, (Lines{"", ""}));
}

TEST_F(FileOps, ReadLinesNumWithoutCountOrFile)
{
    const std::string f = dir / "f";
    writeText(f, "a\n");
    Lines lines;
    EXPECT_TRUE(readFile_LinesNum(f, 0, lines));
    EXPECT_TRUE(readFile_LinesNum(f, -5, lines));
    EXPECT_TRUE(lines.empty());
    EXPECT_FALSE(readFile_LinesNum(dir / "missing", 3, lines));
    EXPECT_FALSE(readFile_LinesNum("", 3, lines));
    EXPECT_TRUE(lines.empty());
}

TEST_F(FileOps, DirFilesListIsSortedAndMarksDirectories)
{
    writeText(dir / "b.log", "");
    writeText(dir / "a.log", "");
    ASSERT_TRUE(tovDirCreate(dir / "c.log"));
    writeText(dir / "other.txt", "");
    EXPECT_EQ(getDirFilesList(dir / "*.log"),
              (Lines{dir / "a.log", dir / "b.log", dir / "c.log/"}));
    EXPECT_TRUE(getDirFilesList(dir / "*.none").empty());
    EXPECT_TRUE(getDirFilesList("").empty());
}

TEST_F(FileOps, DirFilesListExpandsTilde)
{
    writeText(dir / "x.cfg", "");
    const char* oldHome = getenv("HOME");
    const std::string saved = oldHome ? oldHome : "";
    setenv("HOME", dir.path().c_str(), 1);
    const Lines found = getDirFilesList("~/*.cfg");
    if (oldHome)
        setenv("HOME", saved.c_str(), 1);
    else
        unsetenv("HOME");
    EXPECT_EQ(found, Lines{dir / "x.cfg"});
}

TEST(FileNameFromPath, PartAfterLastSlashOrNothing)
{
    for (auto fn : {&get_FileNameFromPath, &getFileNameFromPath}) {
        EXPECT_EQ(fn("/a/b.txt"), "b.txt");
        EXPECT_EQ(fn("~/TOV/tests_tov/x.msr"), "x.msr");
        EXPECT_EQ(fn("/a/b/"), "");
        EXPECT_EQ(fn("name"), "");
        EXPECT_EQ(fn(""), "");
        EXPECT_EQ(fn("/"), "");
    }
}

// File and directory helpers, on scratch folders of this machine.
#include "utils/fileops.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

using tovtest::fileMode;
using tovtest::readText;
using tovtest::TempDir;
using tovtest::writeText;
using Lines = std::vector<std::string>;

TEST(FileOps, ExistCopyRenameDelete)
{
    TempDir dir;
    const std::string src = dir / "src.bin";
    const std::string binary("a\0b\r\nc\xff", 7);
    writeText(src, binary);
    EXPECT_TRUE(tovFileExist(src));
    EXPECT_FALSE(tovFileExist(dir / "missing"));

    EXPECT_TRUE(tovFileCopy(src, dir / "copy.bin", 12345));
    EXPECT_TRUE(tovFileRename(dir / "copy.bin", dir / "moved.bin"));
    EXPECT_EQ(readText(dir / "moved.bin"), binary);
    EXPECT_FALSE(tovFileExist(dir / "copy.bin"));
    EXPECT_FALSE(tovFileRename(dir / "copy.bin", dir / "again.bin"));

    EXPECT_TRUE(tovFileDelete(dir / "moved.bin"));
    EXPECT_FALSE(tovFileExist(dir / "moved.bin"));
    EXPECT_FALSE(tovFileDelete(dir / "moved.bin"));

    // A copy whose source is missing still leaves the destination truncated.
    EXPECT_FALSE(tovFileCopy(dir / "missing", src, 0));
    EXPECT_EQ(readText(src), "");
    EXPECT_FALSE(tovFileCopy(src, dir / "no/such/folder/file", 0));
}

TEST(FileOps, SizeAndLineCount)
{
    TempDir dir;
    const std::string f = dir / "f";
    for (const auto& c : std::vector<std::pair<off_t, float>>{{999999, 0.0f}, {1000000, 1.0f}, {2500000, 2.0f}}) {
        writeText(f, "");
        ASSERT_EQ(truncate(f.c_str(), c.first), 0);
        EXPECT_EQ(tovFileSize(f), c.second) << c.first << " bytes";
    }
    EXPECT_EQ(tovFileSize(dir / "missing"), 0.0f);

    // One more than the newlines: callers rely on this count.
    const std::pair<const char*, int> lineCases[] = {{"", 1}, {"one\ntwo", 2}, {"one\ntwo\n", 3}, {"\n\n\n", 4}};
    for (const auto& c : lineCases) {
        writeText(f, c.first);
        EXPECT_EQ(tovFileLineNum(f), c.second) << c.first;
    }
    EXPECT_EQ(tovFileLineNum(dir / "missing"), 0);
}

TEST(FileOps, Directories)
{
    TempDir dir;
    EXPECT_TRUE(tovDirCreate(dir / "sub"));
    EXPECT_FALSE(tovDirCreate(dir / "sub"));
    EXPECT_FALSE(tovDirCreate(dir / "a/b")); // not recursive
    writeText(dir / "file", "x");
    EXPECT_FALSE(tovDirExist(dir / "file"));
    EXPECT_FALSE(tovDirRename(dir / "file", dir / "other"));
    EXPECT_TRUE(tovDirRename(dir / "sub", dir / "tree"));
    EXPECT_TRUE(tovDirExist(dir / "tree"));
    EXPECT_FALSE(tovDirExist(dir / "sub"));

    writeText(dir / "tree/f", "content");
    EXPECT_TRUE(tovDirCopy(dir / "tree", dir / "copy"));
    EXPECT_EQ(readText(dir / "copy/f"), "content");
    EXPECT_FALSE(tovDirCopy(dir / "missing", dir / "copy2"));

    // A non-empty directory is reported deleted although it stays.
    EXPECT_TRUE(tovDirDelete(dir / "tree"));
    EXPECT_TRUE(tovDirExist(dir / "tree"));
    ASSERT_TRUE(tovDirCreate(dir / "empty"));
    EXPECT_TRUE(tovDirDelete(dir / "empty"));
    EXPECT_FALSE(tovDirExist(dir / "empty"));
    EXPECT_FALSE(tovDirDelete(dir / "empty"));
}

TEST(FileOps, WriteTruncatesOrAppendsAndMakesExecutableOnlyWhenTruncating)
{
    TempDir dir;
    const std::string f = dir / "f";
    EXPECT_TRUE(writeToFile(f, "first", false, false));
    const mode_t plain = fileMode(f);
    EXPECT_TRUE(writeToFile(f, "+second", true, true));
    EXPECT_EQ(readText(f), "first+second");
    EXPECT_EQ(fileMode(f), plain);
    EXPECT_TRUE(writeToFile(f, "new\n", false, true));
    EXPECT_EQ(readText(f), "new\n");
    EXPECT_EQ(fileMode(f), 0774u);
    EXPECT_TRUE(writeToFile(dir / "created-by-append", "x", true, false));
    EXPECT_EQ(readText(dir / "created-by-append"), "x");

    for (const std::string& path : {std::string(), dir / "no/such/folder/f", dir.path()})
        EXPECT_FALSE(writeToFile(path, "text", false, false)) << path;
    // Opens fine but every write fails, as on a full disk: nothing may pass for stored.
    EXPECT_FALSE(writeToFile("/dev/full", "text", true, false));
}

// Replacing a file keeps what it was: mode, owner, and a link stays a link whose file gets the text;
// the temporary file beside it does not stay.
TEST(FileOps, WriteReplacesKeepingModeOwnerAndLinks)
{
    TempDir dir;
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

// A cut between a temporary file's creation and its rename leaves it behind; the next write of the
// same file removes it, unless its writer still runs. Another file's temporaries are not its own.
TEST(FileOps, WriteRemovesTheTemporariesACutLeft)
{
    TempDir dir;
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    ASSERT_GT(gone, 0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    const std::string running = ".phase.new-" + std::to_string(getppid()) + "-0";
    const std::string other = ".starter.new-" + std::to_string(gone) + "-0";
    for (const std::string& name : {".phase.new-" + std::to_string(gone) + "-4",
                                    ".phase.new-" + std::to_string(getpid()) + "-9", running, other})
        writeText(dir / name, "cut");
    EXPECT_TRUE(writeToFile(dir / "phase", "1\n0\n", false, false));
    EXPECT_EQ(getDirFilesList(dir / ".[!.]*"), (Lines{dir / running, dir / other}));
}

TEST(FileOps, ReadAppendsLinesAsTheyStand)
{
    TempDir dir;
    const std::string f = dir / "f";
    struct Case { std::string text; int n; Lines all, firstN; };
    const Case cases[] = {
        {"one\r\n\nthree", 4, {"one\r", "", "three"}, {"one\r", "", "three", "three"}},
        {"a\nb\n", 4, {"a", "b"}, {"a", "b", "", ""}},
        {"1\n0\n192.0.2.10\nextra\n", 3, {"1", "0", "192.0.2.10", "extra"}, {"1", "0", "192.0.2.10"}},
        {"", 2, {}, {"", ""}},
        {"a\n", 0, {"a"}, {}},
        {"a\n", -5, {"a"}, {}},
    };
    // Both append to what the list holds.
    auto afterKept = [](Lines lines) { return lines.insert(lines.begin(), "kept"), lines; };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        writeText(f, c.text);
        Lines all{"kept"}, firstN{"kept"};
        EXPECT_TRUE(readFile_All(f, all));
        EXPECT_TRUE(readFile_LinesNum(f, c.n, firstN));
        EXPECT_EQ(all, afterKept(c.all));
        EXPECT_EQ(firstN, afterKept(c.firstN));
    }
    Lines untouched;
    for (const std::string& path : {std::string(), dir / "missing"}) {
        EXPECT_FALSE(readFile_All(path, untouched));
        EXPECT_FALSE(readFile_LinesNum(path, 3, untouched));
    }
    EXPECT_TRUE(untouched.empty());
}

TEST(FileOps, DirFilesListIsSortedAndMarksDirectories)
{
    TempDir dir;
    writeText(dir / "b.log", "");
    writeText(dir / "a.log", "");
    ASSERT_TRUE(tovDirCreate(dir / "c.log"));
    writeText(dir / "other.txt", "");
    EXPECT_EQ(getDirFilesList(dir / "*.log"), (Lines{dir / "a.log", dir / "b.log", dir / "c.log/"}));
    EXPECT_TRUE(getDirFilesList(dir / "*.none").empty());
}

TEST(FileOps, FileNameIsThePartAfterTheLastSlashOrNothing)
{
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b.txt", "b.txt"}, {"~/TOV/tests_tov/x.msr", "x.msr"}, {"/a/b/", ""}, {"name", ""}, {"", ""}};
    for (auto fn : {&get_FileNameFromPath, &getFileNameFromPath})
        for (const auto& c : cases)
            EXPECT_EQ(fn(c.first), c.second) << c.first;
}

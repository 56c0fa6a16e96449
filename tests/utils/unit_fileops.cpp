// Replacing a whole file where a rename cannot stand in for the truncating open, on the unit's own
// file systems (bind mounts, a small tmpfs), each case in a fresh simulated unit.
#include "utils/fileops.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

using tovtest::readText;
using tovtest::writeText;

namespace {

const std::string kOld(32768, 'o'), kNew(32768, 'n');
const std::string kDir = "/ramdisk/w";

struct Case {
    const char* name;
    // Prepares the unit; gives the path to write and the path whose text shows the outcome ("" for
    // none).
    void (*prepare)(std::string& path, std::string& witness);
    bool written;
    // The witness's text afterwards: the old one, the new one, or the new one cut short.
    enum { Old, New, Short } text;
};

void mounted(std::string& path, std::string& witness)
{
    path = "/etc/network/interfaces";
    witness = kDir + "/interfaces";
    writeText(path, "");
    writeText(witness, kOld);
    ASSERT_EQ(mount(witness.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
}

// Room for the file and a few pages more, not for a second copy.
void nearlyFull(std::string& path, std::string& witness)
{
    ASSERT_EQ(mount("tmpfs", kDir.c_str(), "tmpfs", 0, "size=64k"), 0);
    path = witness = kDir + "/f";
    writeText(path, kOld);
    writeText(kDir + "/filler", std::string(20480, 'x'));
}

// No room even for the new text alone once the old one is gone: the write comes up short.
void full(std::string& path, std::string& witness)
{
    ASSERT_EQ(mount("tmpfs", kDir.c_str(), "tmpfs", 0, "size=64k"), 0);
    path = witness = kDir + "/f";
    writeText(path, kOld.substr(0, 8192));
    writeText(kDir + "/filler", std::string(49152, 'x'));
}

void loop(std::string& path, std::string& witness)
{
    path = kDir + "/a";
    witness = "";
    ASSERT_EQ(symlink("b", path.c_str()), 0);
    ASSERT_EQ(symlink("a", (kDir + "/b").c_str()), 0);
}

void hardLink(std::string& path, std::string& witness)
{
    path = kDir + "/f";
    witness = kDir + "/other-name";
    writeText(path, kOld);
    ASSERT_EQ(link(path.c_str(), witness.c_str()), 0);
}

// The file and its folder belong to the writer, but the file is read-only.
void readOnly(std::string& path, std::string& witness)
{
    path = witness = kDir + "/f";
    writeText(path, kOld);
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    ASSERT_EQ(chown(path.c_str(), 1234, 1234), 0);
    ASSERT_EQ(chown(kDir.c_str(), 1234, 1234), 0);
    ASSERT_EQ(setegid(1234), 0);
    ASSERT_EQ(seteuid(1234), 0);
}

const Case kCases[] = {
    {"mount_point", mounted, true, Case::New},
    {"nearly_full", nearlyFull, true, Case::New},
    {"full", full, true, Case::Short},
    {"link_loop", loop, false, Case::Old},
    {"hard_link", hardLink, true, Case::New},
    {"read_only", readOnly, false, Case::Old},
};

std::string kinds(const std::string& folder)
{
    std::string text;
    for (const std::string& name : getDirFilesList(folder + "/*")) {
        struct stat st {};
        lstat(name.c_str(), &st);
        text += name + (S_ISLNK(st.st_mode) ? " link " : " file ") + std::to_string(st.st_nlink) + "\n";
    }
    return text;
}

class WriteInPlace : public testing::TestWithParam<Case> {
};

} // namespace

// What the truncating open did: the text reaches every name of the file, through the mount, or
// nothing is written; no name changes kind and no temporary file stays.
TEST_P(WriteInPlace, WhereAFileCannotBeReplaced)
{
    ASSERT_EQ(mkdir(kDir.c_str(), 0755), 0);
    std::string path, witness;
    GetParam().prepare(path, witness);
    ASSERT_FALSE(HasFatalFailure());
    const std::string before = kinds(kDir);
    const bool written = writeToFile(path, kNew, false, false);
    seteuid(0);
    setegid(0);
    EXPECT_EQ(written, GetParam().written);
    if (!witness.empty()) {
        const std::string text = readText(witness);
        const bool expected = GetParam().text == Case::Old ? text == kOld
                              : GetParam().text == Case::New ? text == kNew
                                                             : !text.empty() && text.size() < kNew.size() && kNew.compare(0, text.size(), text) == 0;
        EXPECT_TRUE(expected) << text.size() << " bytes from " << text.substr(0, 1);
    }
    EXPECT_EQ(kinds(kDir), before);
    EXPECT_EQ(getDirFilesList(kDir + "/.[!.]*"), std::vector<std::string>{});
    EXPECT_EQ(getDirFilesList("/etc/network/.[!.]*"), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(FileOps, WriteInPlace, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

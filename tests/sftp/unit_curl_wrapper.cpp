// The SFTP wrapper against the WATCHTOWER server of the simulated unit (a real OpenSSH sshd). The
// server's disk shows in the unit at /run/tovsim/watchtower; its account's home is "~/" there.
#include "sftp/curl_wrapper.h"

#include "testfiles.h"
#include "utils/fileops.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

using tovtest::readText;
using tovtest::writeText;

namespace {

const std::string kUrl = "sftp://192.0.2.10";
const std::string kUser = "Watchtower";
const std::string kPassword = "Tomar#81kwy";
const std::string kServerDir = "/run/tovsim/watchtower/TOV/tests_tov/";

std::string measurementText()
{
    std::string text;
    for (int i = 0; i < 2000; ++i)
        text += "23/11/2026_10:00:00;" + std::to_string(i) + ";" + std::to_string(i) + ";0.20;\n";
    return text;
}

// The SHA-256 of the server's host key, as the factory would pin it.
std::string serverKey()
{
    FILE* keygen = popen("ssh-keygen -E sha256 -lf /run/tovsim/watchtower_host_key.pub", "r");
    char line[256] = {};
    const bool read = keygen != nullptr && fgets(line, sizeof line, keygen) != nullptr;
    if (keygen != nullptr)
        pclose(keygen);
    const std::string listing(read ? line : ""), prefix = "SHA256:";
    const std::string::size_type at = listing.find(prefix);
    if (at == std::string::npos)
        return "";
    return listing.substr(at + prefix.size(), listing.find(' ', at) - at - prefix.size());
}

// Puts a file on the server's disk as the account would own it.
void serverFile(const std::string& name, const std::string& text)
{
    writeText(kServerDir + name, text);
    ASSERT_EQ(chown((kServerDir + name).c_str(), 2000, 2000), 0);
}

} // namespace

TEST(Watchtower, TestConnectionLogsIn)
{
    Curl_Wrapper curl;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(curl.TestConnection(kUrl + "/~/", kUser, kPassword));
    // No sink is set: the listing of the folder goes to standard output.
    EXPECT_NE(testing::internal::GetCapturedStdout().find(" TOV\n"), std::string::npos);
}

TEST(Watchtower, UploadSendsIdenticalBytesAndGoesOnPastAMissingFile)
{
    const std::string text = measurementText();
    writeText("/home/tov_test.msr", text);
    writeText("/home/sent_then_deleted.msr", "second file\n");
    Curl_Wrapper curl;
    Curl_Wrapper::UploadMap none;
    EXPECT_TRUE(curl.Upload(kUrl, kUser, kPassword, none));
    Curl_Wrapper::UploadMap files{{{"/home/absent.msr", "~/TOV/tests_tov"}, true},
                                  {{"/home/sent_then_deleted.msr", "~/TOV/tests_tov"}, true},
                                  {{"/home/tov_test.msr", "~/TOV/tests_tov"}, false}};
    EXPECT_FALSE(curl.Upload(kUrl, kUser, kPassword, files));
    EXPECT_EQ(readText(kServerDir + "tov_test.msr"), text);
    EXPECT_EQ(readText(kServerDir + "sent_then_deleted.msr"), "second file\n");
    EXPECT_TRUE(tovFileExist("/home/tov_test.msr"));
    EXPECT_FALSE(tovFileExist("/home/sent_then_deleted.msr"));
    EXPECT_FALSE(tovFileExist(kServerDir + "absent.msr"));
}

TEST(Watchtower, DownloadReplacesTheLocalFileAndMayRemoveTheRemoteOne)
{
    serverFile("config.conf", "remote content\n");
    writeText("/home/config.conf", "an older, longer local content\n");
    Curl_Wrapper curl;
    EXPECT_TRUE(curl.Download(kUrl, kUser, kPassword, "~/TOV/tests_tov/config.conf", "/home/config.conf", false));
    EXPECT_EQ(readText("/home/config.conf"), "remote content\n");
    EXPECT_TRUE(tovFileExist(kServerDir + "config.conf"));

    EXPECT_TRUE(curl.Download(kUrl, kUser, kPassword, "~/TOV/tests_tov/config.conf", "/home/again.conf", true));
    EXPECT_EQ(readText("/home/again.conf"), "remote content\n");
    EXPECT_FALSE(tovFileExist(kServerDir + "config.conf"));

    testing::internal::CaptureStdout();
    EXPECT_FALSE(curl.Download(kUrl, kUser, kPassword, "~/TOV/tests_tov/config.conf", "/home/gone.conf", false));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "curl: error: Remote file not found\n");
}

TEST(Watchtower, DownloadSetDropsFailingEntries)
{
    serverFile("a.msr", "file a\n");
    serverFile("b.msr", "file b\n");
    ASSERT_EQ(mkdir("/home/in", 0755), 0);
    Curl_Wrapper curl;
    Curl_Wrapper::DownloadMap files{{{"~/TOV/tests_tov/a.msr", "/home/in/"}, {false, 1}},
                                    {{"~/TOV/tests_tov/b.msr", "/home/in/"}, {true, 1}},
                                    {{"~/TOV/tests_tov/missing.msr", "/home/in/"}, {false, 1}}};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(curl.Download(kUrl, kUser, kPassword, files));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "curl: error: Remote file not found\n");
    EXPECT_EQ(files.size(), 2u);
    EXPECT_EQ(files.count({"~/TOV/tests_tov/missing.msr", "/home/in/"}), 0u);
    EXPECT_FALSE(tovFileExist("/home/in/missing.msr"));
    EXPECT_EQ(readText("/home/in/a.msr"), "file a\n");
    EXPECT_EQ(readText("/home/in/b.msr"), "file b\n");
    EXPECT_TRUE(tovFileExist(kServerDir + "a.msr"));
    EXPECT_FALSE(tovFileExist(kServerDir + "b.msr"));
}

TEST(Watchtower, DeleteFileAndQuoteCommands)
{
    serverFile("old.msr", "old\n");
    Curl_Wrapper curl;
    EXPECT_TRUE(curl.DeleteFile(kUrl + "/~/", "~/TOV/tests_tov/old.msr", kUser, kPassword));
    EXPECT_FALSE(tovFileExist(kServerDir + "old.msr"));

    serverFile("report.txt", "report\n");
    EXPECT_TRUE(curl.QuoteCommand(kUrl, "/~/TOV/tests_tov/report.txt", "/home/report.txt", kUser, kPassword,
                                  {"mkdir TOV/archive"}, {"rename TOV/tests_tov/report.txt TOV/archive/report.txt"}));
    EXPECT_EQ(readText("/home/report.txt"), "report\n");
    EXPECT_TRUE(tovFileExist("/run/tovsim/watchtower/TOV/archive/report.txt"));
    EXPECT_FALSE(tovFileExist(kServerDir + "report.txt"));
}

TEST(Watchtower, ListDirFiltersNamesAndPrefixesTheFolder)
{
    for (const char* name : {"ab.msr", "ba.msr", "a.log", ".hidden_ab"})
        serverFile(name, "x");
    Curl_Wrapper curl;
    const std::string dir = "~/TOV/tests_tov/";
    auto list = [&](const std::string& pattern) {
        std::vector<std::string> names{"kept"};
        EXPECT_TRUE(curl.ListDir(kUrl, kUser, kPassword, dir, names, pattern));
        std::sort(names.begin() + 1, names.end());
        return names;
    };
    EXPECT_EQ(list(""), (std::vector<std::string>{"kept", dir + "a.log", dir + "ab.msr", dir + "ba.msr"}));
    EXPECT_EQ(list("a*b"), (std::vector<std::string>{"kept", dir + "ab.msr", dir + "ba.msr"}));

    std::vector<std::string> names;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(curl.ListDir(kUrl, kUser, kPassword, "~/no/such/dir/", names, ""));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(names.empty());
}

// In a unit whose server refuses the bench's password.
TEST(WatchtowerBadPassword, EveryOperationFailsWithLoginDenied)
{
    writeText("/home/tov_test.msr", "x\n");
    Curl_Wrapper curl;
    Curl_Wrapper::UploadMap files{{{"/home/tov_test.msr", "~/TOV/tests_tov"}, true}};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(curl.TestConnection(kUrl + "/~/", kUser, kPassword));
    EXPECT_FALSE(curl.Upload(kUrl, kUser, kPassword, files));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "curl: error: Login denied\ncurl: error: Login denied\n");
    EXPECT_TRUE(tovFileExist("/home/tov_test.msr"));
}

// The factory's pin of the server's host key: the server's own key lets the upload through; any
// other fails it before the password is tried (a wrong password then changes nothing).
TEST(Watchtower, PinnedHostKey)
{
    const std::string key = serverKey();
    ASSERT_NE(key, "");
    const std::string otherKey(key.size(), 'A');
    const std::string refused = "curl: error: SSL peer certificate or SSH remote key was not OK\n";
    struct Case {
        std::string key, password, output;
        bool sent;
    };
    for (const Case& c : {Case{key, kPassword, "", true}, Case{otherKey, kPassword, refused, false},
                          Case{otherKey, "wrong", refused, false}}) {
        SCOPED_TRACE(c.key + " " + c.password);
        unlink((kServerDir + "tov_test.msr").c_str());
        writeText("/home/tov_test.msr", "pinned\n");
        Curl_Wrapper curl(c.key);
        Curl_Wrapper::UploadMap files{{{"/home/tov_test.msr", "~/TOV/tests_tov"}, false}};
        testing::internal::CaptureStdout();
        EXPECT_EQ(curl.Upload(kUrl, kUser, c.password, files), c.sent);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output);
        EXPECT_EQ(tovFileExist(kServerDir + "tov_test.msr"), c.sent);
    }
}

// A libcurl that cannot check the pin refuses it, or takes it and ignores it when built on libssh
// (curl_refusing_pin.cpp stands in for both): the transfer then fails before any connection,
// though the pinned key is the server's own. Unpinned, the stand-in uploads as libcurl does.
TEST(WatchtowerPinRefused, NothingIsSentWithoutTheCheck)
{
    ASSERT_EQ(dlopen("libcurl.so.4", RTLD_NOW | RTLD_NOLOAD), nullptr) << "libcurl loaded before its stand-in";
    void* const standin = dlopen(TOV_CURL_REFUSING_PIN, RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(standin, nullptr) << dlerror();
    auto* const refusal = static_cast<CURLcode*>(dlsym(standin, "standin_refusal"));
    auto* const performs = static_cast<int*>(dlsym(standin, "standin_performs"));
    auto* const backend = static_cast<const char**>(dlsym(standin, "standin_ssh_backend"));
    ASSERT_TRUE(refusal != nullptr && performs != nullptr && backend != nullptr);
    struct Case {
        std::string key;
        CURLcode refusal;
        const char* backend; // null: the real library's
        std::string output;
        int performs;
    };
    const std::string unchecked = "the host key pin needs libcurl on libssh2, this one has ";
    for (const Case& c : {Case{serverKey(), CURLE_UNKNOWN_OPTION, nullptr, "An unknown option was passed in to libcurl", 0},
                          Case{serverKey(), CURLE_NOT_BUILT_IN, nullptr,
                               "A requested feature, protocol or option was not found built-in in this libcurl due "
                               "to a build-time decision.", 0},
                          Case{serverKey(), CURLE_OK, "libssh/0.10.6", unchecked + "libssh/0.10.6", 0},
                          Case{"", CURLE_OK, "libssh/0.10.6", "", 1},
                          Case{"", CURLE_UNKNOWN_OPTION, nullptr, "", 1}}) {
        SCOPED_TRACE(c.output);
        *refusal = c.refusal;
        *backend = c.backend;
        *performs = 0;
        writeText("/home/tov_test.msr", "pinned\n");
        Curl_Wrapper curl(c.key);
        Curl_Wrapper::UploadMap files{{{"/home/tov_test.msr", "~/TOV/tests_tov"}, true}};
        testing::internal::CaptureStdout();
        EXPECT_EQ(curl.Upload(kUrl, kUser, kPassword, files), c.performs == 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output.empty() ? "" : "curl: error: " + c.output + "\n");
        EXPECT_EQ(*performs, c.performs);
        EXPECT_EQ(tovFileExist(kServerDir + "tov_test.msr"), c.performs == 1);
        EXPECT_EQ(tovFileExist("/home/tov_test.msr"), c.performs == 0);
    }
}

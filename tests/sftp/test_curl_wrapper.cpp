// The callbacks and helpers of the SFTP wrapper, without a server.
#include "sftp/curl_wrapper.h"
#include "sftp/curllibrary.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

size_t deliver(std::vector<std::string>* list, const std::string& block)
{
    std::vector<char> buffer(block.begin(), block.end());
    return Curl_Wrapper::_CurlSftpListCallback(buffer.data(), 1, buffer.size(), list);
}

} // namespace

TEST(CurlLibrary, OpensLibcurlAndBindsEveryEntryPoint)
{
    CurlLibrary lib;
    ASSERT_TRUE(lib.loaded()) << lib.error();
    EXPECT_EQ(lib.error(), "");
    EXPECT_STREQ(lib.easy_strerror(CURLE_OK), "No error");
    ASSERT_EQ(lib.global_init(CURL_GLOBAL_ALL), CURLE_OK);
    CURL* handle = lib.easy_init();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(lib.easy_setopt(handle, CURLOPT_URL, "sftp://192.0.2.1/"), CURLE_OK);
    curl_slist* list = lib.slist_append(nullptr, "rm a");
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->data, "rm a");
    lib.slist_free_all(list);
    lib.easy_cleanup(handle);
    lib.global_cleanup();
    EXPECT_NE(lib.easy_perform, nullptr);
}

TEST(CurlWrapperCallbacks, ListingTakesOneNamePerBlockWithoutDotNames)
{
    std::vector<std::string> names;
    EXPECT_EQ(deliver(&names, "tov_test.msr\n"), 13u);
    EXPECT_EQ(deliver(&names, ".\n"), 2u);
    EXPECT_EQ(deliver(&names, "..\n"), 3u);
    EXPECT_EQ(deliver(&names, ".hidden\n"), 8u);
    EXPECT_EQ(deliver(&names, "no line feed"), 12u);
    EXPECT_EQ(deliver(&names, "\n"), 1u);
    EXPECT_EQ(names, (std::vector<std::string>{"tov_test.msr", "no line feed"}));

    char data[] = "x\n";
    EXPECT_EQ(Curl_Wrapper::_CurlSftpListCallback(data, 2, 1, nullptr), 2u);
    EXPECT_EQ(Curl_Wrapper::_CurlSftpListCallback(nullptr, 3, 4, &names), 12u);
    EXPECT_EQ(Curl_Wrapper::_CurlSftpListCallback(data, 0, 2, &names), 0u);
    EXPECT_EQ(names.size(), 2u);
}

TEST(CurlWrapperCallbacks, WriteWithoutFileDiscardsAndProgressNeverAborts)
{
    char data[16] = {};
    EXPECT_EQ(Curl_Wrapper::_CurlWriteCallback(data, 4, 3, nullptr), 12u);
    EXPECT_EQ(Curl_Wrapper::_CurlProgressCallback(nullptr, 100, 50, 100, 50), 0);
}

TEST(CurlWrapperCallbacks, FileNameFromPath)
{
    EXPECT_EQ(Curl_Wrapper::getFileNameFromPath("/home/tov_test.msr"), "tov_test.msr");
    EXPECT_EQ(Curl_Wrapper::getFileNameFromPath("~/TOV/tests_tov/"), "");
    EXPECT_EQ(Curl_Wrapper::getFileNameFromPath("name"), "");
}

TEST(CurlWrapperArguments, MissingMandatoryArgumentsFailBeforeAnyTransfer)
{
    Curl_Wrapper curl;
    Curl_Wrapper::UploadMap uploads{{{"/tmp/x", "dir"}, false}};
    Curl_Wrapper::DownloadMap downloads;
    std::vector<std::string> names;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(curl.TestConnection("", "u", "p"));
    EXPECT_FALSE(curl.Upload("", "u", "p", uploads));
    EXPECT_FALSE(curl.Download("", "u", "p", "r", "/tmp/l", false));
    EXPECT_FALSE(curl.Download("sftp://x", "u", "p", "", "/tmp/l", false));
    EXPECT_FALSE(curl.Download("sftp://x", "u", "p", "r", "", false));
    EXPECT_FALSE(curl.Download("", "u", "p", downloads));
    EXPECT_FALSE(curl.DeleteFile("", "r", "u", "p"));
    EXPECT_FALSE(curl.DeleteFile("sftp://x", "", "u", "p"));
    EXPECT_FALSE(curl.QuoteCommand("", "/r", "/tmp/l", "u", "p", {}, {}));
    EXPECT_FALSE(curl.QuoteCommand("sftp://x", "", "/tmp/l", "u", "p", {}, {}));
    EXPECT_FALSE(curl.QuoteCommand("sftp://x", "/r", "", "u", "p", {}, {}));
    EXPECT_FALSE(curl.ListDir("", "u", "p", "d/", names, ""));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(CurlWrapperListing, FilterKeepsNamesHoldingThePatternOrEveryPieceInAnyOrder)
{
    const std::vector<std::string> names = {"ab.msr", "ba.msr", "a.msr", "notes.txt"};
    std::vector<std::string> kept = names;
    Curl_Wrapper::filterListing(kept, "a*b");
    EXPECT_EQ(kept, (std::vector<std::string>{"ab.msr", "ba.msr"}));

    kept = names;
    Curl_Wrapper::filterListing(kept, ".msr");
    EXPECT_EQ(kept, (std::vector<std::string>{"ab.msr", "ba.msr", "a.msr"}));

    kept = names;
    Curl_Wrapper::filterListing(kept, "");
    EXPECT_EQ(kept, names);

    // A pattern of stars alone has no piece to miss.
    kept = names;
    Curl_Wrapper::filterListing(kept, "**");
    EXPECT_EQ(kept, names);

    kept = names;
    Curl_Wrapper::filterListing(kept, "zz");
    EXPECT_TRUE(kept.empty());
}

// The SFTP wrapper without a server: argument checks and the listing's name filter.
#include "sftp/curl_wrapper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Names = std::vector<std::string>;

TEST(CurlWrapper, MissingMandatoryArgumentsFailSilentlyBeforeAnyTransfer)
{
    Curl_Wrapper curl;
    Curl_Wrapper::UploadMap uploads{{{"/tmp/x", "dir"}, false}};
    Curl_Wrapper::DownloadMap downloads;
    Names names;
    testing::internal::CaptureStdout();
    const bool results[] = {
        curl.TestConnection("", "u", "p"),
        curl.Upload("", "u", "p", uploads),
        curl.Download("", "u", "p", "r", "/tmp/l", false),
        curl.Download("sftp://x", "u", "p", "", "/tmp/l", false),
        curl.Download("sftp://x", "u", "p", "r", "", false),
        curl.Download("", "u", "p", downloads),
        curl.DeleteFile("", "r", "u", "p"),
        curl.DeleteFile("sftp://x", "", "u", "p"),
        curl.QuoteCommand("", "/r", "/tmp/l", "u", "p", {}, {}),
        curl.QuoteCommand("sftp://x", "", "/tmp/l", "u", "p", {}, {}),
        curl.QuoteCommand("sftp://x", "/r", "", "u", "p", {}, {}),
        curl.ListDir("", "u", "p", "d/", names, ""),
    };
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    for (size_t i = 0; i < sizeof results / sizeof results[0]; ++i)
        EXPECT_FALSE(results[i]) << "call " << i;
}

TEST(CurlWrapper, ListingFilterKeepsNamesHoldingThePatternOrEveryPieceInAnyOrder)
{
    const Names names = {"ab.msr", "ba.msr", "a.msr", "notes.txt"};
    const std::pair<std::string, Names> cases[] = {
        {"a*b", {"ab.msr", "ba.msr"}},
        {".msr", {"ab.msr", "ba.msr", "a.msr"}},
        {"*.txt", {"notes.txt"}},
        {"", names},
        {"**", names}, // no piece to miss
        {"zz", {}},
    };
    for (const auto& c : cases) {
        Names kept = names;
        Curl_Wrapper::filterListing(kept, c.first);
        EXPECT_EQ(kept, c.second) << c.first;
    }
}

// The bench's only route to the maker's WATCHTOWER server: SFTP through libcurl's easy interface.
// Each operation sets up its own transfer, runs it and cleans up; one object runs one operation at
// a time. Results are true for success; the only messages are "curl: error: ..." and the
// initialisation failure.
#ifndef TOV_SFTP_CURL_WRAPPER_H
#define TOV_SFTP_CURL_WRAPPER_H

#include "sftp/curllibrary.h"

#include <curl/curl.h>

#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class Curl_Wrapper {
public:
    // (local path, remote directory) -> delete the local file after a successful upload
    using UploadMap = std::map<std::pair<std::string, std::string>, bool>;
    // (remote path, local directory ending in "/") -> (remove the remote file after the download,
    // status); entries that fail are removed from the map
    using DownloadMap = std::map<std::pair<std::string, std::string>, std::pair<bool, int>>;

    // The WATCHTOWER host key the factory pinned at build time (TOV_WATCHTOWER_HOST_KEY_SHA256).
    Curl_Wrapper();
    // hostKeySha256: the SHA-256 of the server's host key, in base64 as "ssh-keygen -l" prints it
    // after "SHA256:"; a server showing another key fails every operation before the password is
    // sent, and so does a libcurl that cannot check it. Empty: any host key is taken.
    explicit Curl_Wrapper(std::string hostKeySha256);
    virtual ~Curl_Wrapper();

    bool initCurl_Wrapper();
    void closeCurl_Wrapper();

    bool TestConnection(const std::string& url, const std::string& user, const std::string& password);
    bool Upload(const std::string& url, const std::string& user, const std::string& password, UploadMap& files);
    bool Download(const std::string& url, const std::string& user, const std::string& password,
                  const std::string& remotePath, const std::string& localPath, const bool& removeRemote);
    bool Download(const std::string& url, const std::string& user, const std::string& password, DownloadMap& files);
    bool DeleteFile(const std::string& url, const std::string& remotePath, const std::string& user,
                    const std::string& password);
    bool QuoteCommand(const std::string& url, const std::string& remotePart, const std::string& localFile,
                      const std::string& user, const std::string& password, const std::vector<std::string>& before,
                      const std::vector<std::string>& after);
    bool ListDir(const std::string& url, const std::string& user, const std::string& password,
                 const std::string& remoteDir, std::vector<std::string>& result, const std::string& pattern);

    // The part after the last "/"; a path without "/" gives "".
    static std::string getFileNameFromPath(const std::string& path);

    static size_t _CurlReadCallback(void* buf, size_t size, size_t n, void* stream);
    static size_t _CurlWriteCallback(void* buf, size_t size, size_t n, void* stream);
    static int _CurlProgressCallback(void* wrapper, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
                                     curl_off_t ulNow);
    static size_t _CurlSftpListCallback(void* buf, size_t size, size_t n, void* list);
    // ListDir's name filter, in place: "" keeps all; with "*", names holding every piece in any
    // order; otherwise names containing the pattern.
    static void filterListing(std::vector<std::string>& names, const std::string& pattern);
    void CurlProgressCallback(double total, double now);

private:
    // Owning guards: whatever branch an operation leaves by, its handle, command lists and files
    // are released (files first, then lists, then the handle, as they are declared in reverse).
    using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
    using CommandList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;
    using File = std::unique_ptr<FILE, int (*)(FILE*)>;

    // The start every operation shares: null when one of the mandatory arguments is empty (libcurl
    // is then left alone), when no handle could be made, or when libcurl refuses the host-key pin
    // (said as a failed transfer says it, unless reportRefusal is false); otherwise a new easy
    // handle, the library's global state set up first as every operation has always done.
    Handle open(std::initializer_list<const std::string*> mandatory, bool reportRefusal = true);
    // One list entry per command; null when there is no command or the list could not be made.
    CommandList commandList(const std::vector<std::string>& commands);
    void setProgress(CURL* curl, long noProgress);
    void setCredentials(CURL* curl, const std::string& user, const std::string& password);
    bool perform(CURL* curl);

    CurlLibrary m_lib;
    std::mutex m_mutex;
    const std::string m_hostKeySha256;
};

#endif

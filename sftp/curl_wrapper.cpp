#include "sftp/curl_wrapper.h"

#include "utils/fileops.h"
#include "utils/stringops.h"

#include <sys/stat.h>

#include <cstdio>

namespace {

// SFTP quote commands name paths from the login folder, where "~/" means nothing.
std::string removalCommand(const std::string& remotePath)
{
    std::string path = remotePath;
    if (string_startsWith(path.c_str(), "~/"))
        string_replaceChar(path, "~/", "");
    return "rm " + path;
}

curl_slist* commandList(const CurlLibrary& lib, const std::vector<std::string>& commands)
{
    curl_slist* list = nullptr;
    for (const std::string& command : commands) {
        curl_slist* grown = lib.slist_append(list, command.c_str());
        if (grown == nullptr) {
            lib.slist_free_all(list);
            return nullptr;
        }
        list = grown;
    }
    return list;
}

bool keptByPattern(const std::string& name, const std::vector<std::string>& pieces)
{
    for (const std::string& piece : pieces)
        if (!string_findSubStr(name, piece))
            return false;
    return true;
}

} // namespace

Curl_Wrapper::Curl_Wrapper()
{
    initCurl_Wrapper();
}

Curl_Wrapper::~Curl_Wrapper()
{
    closeCurl_Wrapper();
}

bool Curl_Wrapper::initCurl_Wrapper()
{
    if (!m_lib.loaded() || m_lib.global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        puts("[Curl_Wrapper] Init ERROR");
        return false;
    }
    return true;
}

void Curl_Wrapper::closeCurl_Wrapper()
{
    if (m_lib.loaded())
        m_lib.global_cleanup();
}

CURL* Curl_Wrapper::newHandle()
{
    if (!m_lib.loaded())
        return nullptr;
    m_lib.global_init(CURL_GLOBAL_ALL);
    return m_lib.easy_init();
}

std::string Curl_Wrapper::getFileNameFromPath(const std::string& path)
{
    return ::getFileNameFromPath(path);
}

size_t Curl_Wrapper::_CurlReadCallback(void* buf, size_t size, size_t n, void* stream)
{
    return fread(buf, size, n, static_cast<FILE*>(stream));
}

size_t Curl_Wrapper::_CurlWriteCallback(void* buf, size_t size, size_t n, void* stream)
{
    if (stream == nullptr)
        return size * n;
    return fwrite(buf, size, n, static_cast<FILE*>(stream));
}

int Curl_Wrapper::_CurlProgressCallback(void* /*wrapper*/, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return 0; // never aborts a transfer
}

size_t Curl_Wrapper::_CurlSftpListCallback(void* buf, size_t size, size_t n, void* list)
{
    const size_t length = size * n;
    if (buf == nullptr || list == nullptr || length == 0)
        return length;
    // Each block is one name followed by its line feed.
    std::string name(static_cast<const char*>(buf), length);
    if (name.back() == '\n')
        name.pop_back();
    if (!name.empty() && name[0] != '.')
        static_cast<std::vector<std::string>*>(list)->push_back(name);
    return length;
}

void Curl_Wrapper::CurlProgressCallback(double /*total*/, double /*now*/)
{
}

void Curl_Wrapper::setProgress(CURL* curl, long noProgress)
{
    m_lib.easy_setopt(curl, CURLOPT_NOPROGRESS, noProgress);
    m_lib.easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Curl_Wrapper::_CurlProgressCallback);
    m_lib.easy_setopt(curl, CURLOPT_XFERINFODATA, this);
}

void Curl_Wrapper::setCredentials(CURL* curl, const std::string& user, const std::string& password)
{
    if (!user.empty())
        m_lib.easy_setopt(curl, CURLOPT_USERPWD, user.c_str());
    if (!password.empty())
        m_lib.easy_setopt(curl, CURLOPT_PASSWORD, password.c_str());
}

bool Curl_Wrapper::perform(CURL* curl)
{
    const CURLcode code = m_lib.easy_perform(curl);
    if (code != CURLE_OK) {
        printf("curl: error: %s\n", m_lib.easy_strerror(code));
        return false;
    }
    return true;
}

bool Curl_Wrapper::TestConnection(const std::string& url, const std::string& user, const std::string& password)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_URL, url.c_str());
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    setCredentials(curl, user, password);
    const bool ok = perform(curl);
    m_lib.easy_cleanup(curl);
    return ok;
}

bool Curl_Wrapper::DeleteFile(const std::string& url, const std::string& remotePath, const std::string& user,
                              const std::string& password)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty() || remotePath.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    curl_slist* commands = commandList(m_lib, {removalCommand(remotePath)});
    if (commands == nullptr) {
        m_lib.easy_cleanup(curl);
        return false;
    }
    m_lib.easy_setopt(curl, CURLOPT_URL, url.c_str());
    m_lib.easy_setopt(curl, CURLOPT_QUOTE, commands);
    setCredentials(curl, user, password);
    const bool ok = perform(curl);
    m_lib.slist_free_all(commands);
    m_lib.easy_cleanup(curl);
    return ok;
}

bool Curl_Wrapper::Upload(const std::string& url, const std::string& user, const std::string& password,
                          UploadMap& files)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    m_lib.easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_READFUNCTION, &Curl_Wrapper::_CurlReadCallback);
    setCredentials(curl, user, password);

    bool result = true;
    for (const auto& entry : files) {
        const std::string& localPath = entry.first.first;
        struct stat st;
        if (stat(localPath.c_str(), &st) != 0) {
            result = false;
            continue;
        }
        const std::string remoteUrl = url + "/" + entry.first.second + "/" + getFileNameFromPath(localPath);
        FILE* file = fopen(localPath.c_str(), "rb");
        if (file == nullptr)
            continue; // an unreadable file leaves the result as it is, as it always has
        m_lib.easy_setopt(curl, CURLOPT_READDATA, file);
        m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
        m_lib.easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(st.st_size));
        const bool sent = perform(curl);
        fclose(file);
        if (!sent)
            result = false;
        else if (entry.second)
            tovFileDelete(localPath);
    }
    m_lib.easy_cleanup(curl);
    return result;
}

bool Curl_Wrapper::Download(const std::string& url, const std::string& user, const std::string& password,
                            const std::string& remotePath, const std::string& localPath, const bool& removeRemote)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty() || remotePath.empty() || localPath.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    const std::string remoteUrl = url + "/" + remotePath;
    if (tovFileExist(localPath))
        tovFileDelete(localPath);
    FILE* file = fopen(localPath.c_str(), "wb+");
    if (file == nullptr) {
        m_lib.easy_cleanup(curl);
        return false;
    }
    m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file);
    setCredentials(curl, user, password);
    curl_slist* commands = nullptr;
    if (removeRemote) {
        commands = commandList(m_lib, {removalCommand(remotePath)});
        if (commands != nullptr)
            m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, commands);
    }
    m_lib.easy_setopt(curl, CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    const bool ok = perform(curl);
    fclose(file); // a partial file stays for the caller to look at
    m_lib.slist_free_all(commands);
    m_lib.easy_cleanup(curl);
    return ok;
}

bool Curl_Wrapper::Download(const std::string& url, const std::string& user, const std::string& password,
                            DownloadMap& files)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    setCredentials(curl, user, password);

    bool result = true;
    for (auto it = files.begin(); it != files.end();) {
        const std::string remotePath = it->first.first;
        const std::string localPath = it->first.second + getFileNameFromPath(remotePath);
        // This form's command ends in a line feed, unlike the others: kept as the server has
        // always received it.
        curl_slist* commands = it->second.first ? commandList(m_lib, {removalCommand(remotePath) + "\n"}) : nullptr;
        const std::string remoteUrl = url + "/" + remotePath;
        m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
        m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
        setProgress(curl, 0);
        // Cleared for entries without removal, so the handle never points at a freed list.
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, commands);

        FILE* file = fopen(localPath.c_str(), "wb+");
        if (file == nullptr) {
            result = false;
            m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, nullptr);
            m_lib.slist_free_all(commands);
            ++it;
            continue;
        }
        m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file);
        const CURLcode code = m_lib.easy_perform(curl);
        fclose(file);
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, nullptr);
        m_lib.slist_free_all(commands);
        if (code != CURLE_OK) {
            printf("curl: error: %s\n", m_lib.easy_strerror(code));
            it->second.second = 0;
            it = files.erase(it);
            tovFileDelete(localPath);
            result = false;
        } else {
            ++it;
        }
    }
    m_lib.easy_cleanup(curl);
    return result;
}

bool Curl_Wrapper::QuoteCommand(const std::string& url, const std::string& remotePart, const std::string& localFile,
                                const std::string& user, const std::string& password,
                                const std::vector<std::string>& before, const std::vector<std::string>& after)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty() || remotePart.empty() || localFile.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    curl_slist* quote = commandList(m_lib, before);
    curl_slist* postQuote = commandList(m_lib, after);
    const std::string fullUrl = url + remotePart;
    FILE* file = fopen(localFile.c_str(), "wb+");
    if (file == nullptr) {
        m_lib.slist_free_all(quote);
        m_lib.slist_free_all(postQuote);
        m_lib.easy_cleanup(curl);
        return false;
    }
    m_lib.easy_setopt(curl, CURLOPT_URL, fullUrl.c_str());
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file);
    setProgress(curl, 0);
    if (quote != nullptr)
        m_lib.easy_setopt(curl, CURLOPT_QUOTE, quote);
    if (postQuote != nullptr)
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, postQuote);
    setCredentials(curl, user, password);
    const bool ok = perform(curl);
    fclose(file);
    m_lib.slist_free_all(quote);
    m_lib.slist_free_all(postQuote);
    m_lib.easy_cleanup(curl);
    return ok;
}

void Curl_Wrapper::filterListing(std::vector<std::string>& names, const std::string& pattern)
{
    if (pattern.empty() || names.empty())
        return;
    if (string_findSubStr(pattern, "*")) {
        // Every piece must occur somewhere in the name; order and position are not checked.
        const std::vector<std::string> pieces = string_split_stringDelim(pattern, "*");
        std::vector<std::string> kept;
        for (const std::string& name : names)
            if (keptByPattern(name, pieces))
                kept.push_back(name);
        names.swap(kept);
    } else {
        filterVectorContainsStr(names, pattern);
    }
}

bool Curl_Wrapper::ListDir(const std::string& url, const std::string& user, const std::string& password,
                           const std::string& remoteDir, std::vector<std::string>& result, const std::string& pattern)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (url.empty())
        return false;
    CURL* curl = newHandle();
    if (curl == nullptr)
        return false;
    std::vector<std::string> names;
    const std::string fullUrl = url + "/" + remoteDir;
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    m_lib.easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlSftpListCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, &names);
    m_lib.easy_setopt(curl, CURLOPT_DIRLISTONLY, 1L);
    setCredentials(curl, user, password);
    m_lib.easy_setopt(curl, CURLOPT_URL, fullUrl.c_str());
    const bool ok = m_lib.easy_perform(curl) == CURLE_OK; // a failed listing prints nothing
    m_lib.easy_cleanup(curl);
    if (!ok)
        return false;

    filterListing(names, pattern);
    for (const std::string& name : names)
        result.push_back(remoteDir + name);
    return true;
}

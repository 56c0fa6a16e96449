#include "sftp/curl_wrapper.h"

#include "utils/fileops.h"
#include "utils/stringops.h"
#include "tovconfig.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

// SFTP quote commands name paths from the login folder, where "~/" means nothing.
std::string removalCommand(const std::string& remotePath)
{
    std::string path = remotePath;
    if (string_startsWith(path.c_str(), "~/"))
        string_replaceChar(path, "~/", "");
    return "rm " + path;
}

bool keptByPattern(const std::string& name, const std::vector<std::string>& pieces)
{
    for (const std::string& piece : pieces)
        if (!string_findSubStr(name, piece))
            return false;
    return true;
}

} // namespace

Curl_Wrapper::Curl_Wrapper() : Curl_Wrapper(TOV_WATCHTOWER_HOST_KEY_SHA256)
{
}

Curl_Wrapper::Curl_Wrapper(std::string hostKeySha256) : m_hostKeySha256(std::move(hostKeySha256))
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

Curl_Wrapper::Handle Curl_Wrapper::open(std::initializer_list<const std::string*> mandatory, bool reportRefusal)
{
    Handle none(nullptr, m_lib.easy_cleanup);
    for (const std::string* argument : mandatory)
        if (argument->empty())
            return none;
    if (!m_lib.loaded())
        return none;
    m_lib.global_init(CURL_GLOBAL_ALL);
    Handle handle(m_lib.easy_init(), m_lib.easy_cleanup);
    if (!handle || m_hostKeySha256.empty())
        return handle;
    // A libcurl older than 7.80 refuses the pin; one built on another SSH backend than libssh2 takes
    // it and never checks it. Going on without the check would hand the password to whoever
    // answers at the address.
    const char* const backend = m_lib.version_info(CURLVERSION_NOW)->libssh_version;
    if (backend == nullptr || std::strncmp(backend, "libssh2/", 8) != 0) {
        if (reportRefusal)
            printf("curl: error: the host key pin needs libcurl on libssh2, this one has %s\n",
                   backend != nullptr ? backend : "no SSH");
        return none;
    }
    const CURLcode code = m_lib.easy_setopt(handle.get(), CURLOPT_SSH_HOST_PUBLIC_KEY_SHA256, m_hostKeySha256.c_str());
    if (code != CURLE_OK) {
        if (reportRefusal)
            printf("curl: error: %s\n", m_lib.easy_strerror(code));
        return none;
    }
    return handle;
}

Curl_Wrapper::CommandList Curl_Wrapper::commandList(const std::vector<std::string>& commands)
{
    CommandList list(nullptr, m_lib.slist_free_all);
    for (const std::string& command : commands) {
        curl_slist* grown = m_lib.slist_append(list.get(), command.c_str());
        if (grown == nullptr)
            return CommandList(nullptr, m_lib.slist_free_all); // the old list goes with `list`
        list.release();
        list.reset(grown);
    }
    return list;
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
    const Handle handle = open({&url});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
    m_lib.easy_setopt(curl, CURLOPT_URL, url.c_str());
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    setCredentials(curl, user, password);
    return perform(curl);
}

bool Curl_Wrapper::DeleteFile(const std::string& url, const std::string& remotePath, const std::string& user,
                              const std::string& password)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Handle handle = open({&url, &remotePath});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
    const CommandList commands = commandList({removalCommand(remotePath)});
    if (!commands)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_URL, url.c_str());
    m_lib.easy_setopt(curl, CURLOPT_QUOTE, commands.get());
    setCredentials(curl, user, password);
    return perform(curl);
}

bool Curl_Wrapper::Upload(const std::string& url, const std::string& user, const std::string& password,
                          UploadMap& files)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Handle handle = open({&url});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
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
        File file(fopen(localPath.c_str(), "rb"), &fclose);
        if (!file)
            continue; // an unreadable file leaves the result as it is, as it always has
        m_lib.easy_setopt(curl, CURLOPT_READDATA, file.get());
        m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
        m_lib.easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(st.st_size));
        const bool sent = perform(curl);
        file.reset();
        if (!sent)
            result = false;
        else if (entry.second)
            tovFileDelete(localPath);
    }
    return result;
}

bool Curl_Wrapper::Download(const std::string& url, const std::string& user, const std::string& password,
                            const std::string& remotePath, const std::string& localPath, const bool& removeRemote)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Handle handle = open({&url, &remotePath, &localPath});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
    const std::string remoteUrl = url + "/" + remotePath;
    if (tovFileExist(localPath))
        tovFileDelete(localPath);
    CommandList commands(nullptr, m_lib.slist_free_all);
    // A partial file stays for the caller to look at.
    const File file(fopen(localPath.c_str(), "wb+"), &fclose);
    if (!file)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
    setProgress(curl, 0);
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file.get());
    setCredentials(curl, user, password);
    if (removeRemote) {
        commands = commandList({removalCommand(remotePath)});
        if (commands)
            m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, commands.get());
    }
    m_lib.easy_setopt(curl, CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    return perform(curl);
}

bool Curl_Wrapper::Download(const std::string& url, const std::string& user, const std::string& password,
                            DownloadMap& files)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Handle handle = open({&url});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
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
        std::vector<std::string> removal;
        if (it->second.first)
            removal.push_back(removalCommand(remotePath) + "\n");
        const CommandList commands = commandList(removal);
        const std::string remoteUrl = url + "/" + remotePath;
        m_lib.easy_setopt(curl, CURLOPT_URL, remoteUrl.c_str());
        m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
        setProgress(curl, 0);
        // Cleared for entries without removal, so the handle never points at a freed list.
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, commands.get());

        File file(fopen(localPath.c_str(), "wb+"), &fclose);
        if (!file) {
            m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, nullptr); // before the list goes
            result = false;
            ++it;
            continue;
        }
        m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file.get());
        const bool received = perform(curl);
        file.reset();
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, nullptr); // before the list goes
        if (!received) {
            it->second.second = 0;
            it = files.erase(it);
            tovFileDelete(localPath);
            result = false;
        } else {
            ++it;
        }
    }
    return result;
}

bool Curl_Wrapper::QuoteCommand(const std::string& url, const std::string& remotePart, const std::string& localFile,
                                const std::string& user, const std::string& password,
                                const std::vector<std::string>& before, const std::vector<std::string>& after)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const Handle handle = open({&url, &remotePart, &localFile});
    if (!handle)
        return false;
    CURL* const curl = handle.get();
    const CommandList quote = commandList(before);
    const CommandList postQuote = commandList(after);
    const std::string fullUrl = url + remotePart;
    const File file(fopen(localFile.c_str(), "wb+"), &fclose);
    if (!file)
        return false;
    m_lib.easy_setopt(curl, CURLOPT_URL, fullUrl.c_str());
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlWriteCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, file.get());
    setProgress(curl, 0);
    if (quote)
        m_lib.easy_setopt(curl, CURLOPT_QUOTE, quote.get());
    if (postQuote)
        m_lib.easy_setopt(curl, CURLOPT_POSTQUOTE, postQuote.get());
    setCredentials(curl, user, password);
    return perform(curl);
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
    std::vector<std::string> names; // outlives the handle that writes into it
    const Handle handle = open({&url}, false); // a failed listing prints nothing
    if (!handle)
        return false;
    CURL* const curl = handle.get();
    const std::string fullUrl = url + "/" + remoteDir;
    m_lib.easy_setopt(curl, CURLOPT_FTP_USE_EPSV, 0L);
    m_lib.easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    m_lib.easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Curl_Wrapper::_CurlSftpListCallback);
    m_lib.easy_setopt(curl, CURLOPT_WRITEDATA, &names);
    m_lib.easy_setopt(curl, CURLOPT_DIRLISTONLY, 1L);
    setCredentials(curl, user, password);
    m_lib.easy_setopt(curl, CURLOPT_URL, fullUrl.c_str());
    if (m_lib.easy_perform(curl) != CURLE_OK)
        return false; // a failed listing prints nothing

    filterListing(names, pattern);
    for (const std::string& name : names)
        result.push_back(remoteDir + name);
    return true;
}

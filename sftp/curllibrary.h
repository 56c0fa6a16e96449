// libcurl, opened when a transfer object is made rather than when the program starts. libcurl
// brings some twenty-five libraries with it (TLS, SSH, Kerberos, LDAP...), about 6 MB resident
// and most of the program's dynamic linking; the bench needs them only for the one upload of its
// test run, so its window comes up without them.
//
// Each object opens the library (the first one loads it, the others only take a reference) and
// binds the entry points the wrapper uses, with the prototypes of <curl/curl.h>. Once loaded,
// the library stays for the life of the process, as a linked one would.
#ifndef TOV_SFTP_CURLLIBRARY_H
#define TOV_SFTP_CURLLIBRARY_H

#include <curl/curl.h>

#include <string>

class CurlLibrary {
public:
    CurlLibrary();
    ~CurlLibrary();
    CurlLibrary(const CurlLibrary&) = delete;
    CurlLibrary& operator=(const CurlLibrary&) = delete;

    // False when the library or one of its entry points could not be found; error() says why and
    // every entry point is then null.
    bool loaded() const { return m_handle != nullptr; }
    const std::string& error() const { return m_error; }

    decltype(&curl_global_init) global_init = nullptr;
    decltype(&curl_global_cleanup) global_cleanup = nullptr;
    decltype(&curl_easy_init) easy_init = nullptr;
    decltype(&curl_easy_setopt) easy_setopt = nullptr;
    decltype(&curl_easy_perform) easy_perform = nullptr;
    decltype(&curl_easy_cleanup) easy_cleanup = nullptr;
    decltype(&curl_easy_strerror) easy_strerror = nullptr;
    decltype(&curl_slist_append) slist_append = nullptr;
    decltype(&curl_slist_free_all) slist_free_all = nullptr;
    decltype(&curl_version_info) version_info = nullptr;

private:
    bool bindAll();
    void unbindAll();

    void* m_handle = nullptr;
    std::string m_error;
};

#endif

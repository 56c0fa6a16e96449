// A libcurl stand-in for one test: named libcurl.so.4 and loaded before the bench opens libcurl, it
// passes every call to the real library but answers the host-key pin with the error `refusal`
// gives, as a libcurl older than 7.80 does, and can name another SSH backend than the real one
// (`standin_ssh_backend`), as a libcurl built on libssh does, which takes the pin and ignores it.
// It counts transfers.
#include <curl/curl.h>

#include <dlfcn.h>

#include <cstdarg>

extern "C" {
__attribute__((visibility("default"))) CURLcode standin_refusal = CURLE_UNKNOWN_OPTION;
__attribute__((visibility("default"))) int standin_performs = 0;
__attribute__((visibility("default"))) const char* standin_ssh_backend = nullptr;
}

namespace {

template <typename Function>
Function* real(const char* name)
{
    static void* const library = dlopen(TOV_REAL_CURL, RTLD_NOW | RTLD_LOCAL);
    return reinterpret_cast<Function*>(dlsym(library, name));
}

} // namespace

extern "C" {

CURLcode curl_global_init(long flags)
{
    return real<decltype(curl_global_init)>("curl_global_init")(flags);
}

void curl_global_cleanup()
{
    real<decltype(curl_global_cleanup)>("curl_global_cleanup")();
}

CURL* curl_easy_init()
{
    return real<decltype(curl_easy_init)>("curl_easy_init")();
}

// The argument's type follows from the option's number, as in <curl/curl.h>.
CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...)
{
    auto* const set = real<decltype(curl_easy_setopt)>("curl_easy_setopt");
    if (option == CURLOPT_SSH_HOST_PUBLIC_KEY_SHA256 && standin_refusal != CURLE_OK)
        return standin_refusal;
    va_list args;
    va_start(args, option);
    CURLcode code;
    if (option < CURLOPTTYPE_OBJECTPOINT)
        code = set(curl, option, va_arg(args, long));
    else if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB)
        code = set(curl, option, va_arg(args, curl_off_t));
    else
        code = set(curl, option, va_arg(args, void*));
    va_end(args);
    return code;
}

CURLcode curl_easy_perform(CURL* curl)
{
    ++standin_performs;
    return real<decltype(curl_easy_perform)>("curl_easy_perform")(curl);
}

void curl_easy_cleanup(CURL* curl)
{
    real<decltype(curl_easy_cleanup)>("curl_easy_cleanup")(curl);
}

const char* curl_easy_strerror(CURLcode code)
{
    return real<decltype(curl_easy_strerror)>("curl_easy_strerror")(code);
}

curl_slist* curl_slist_append(curl_slist* list, const char* text)
{
    return real<decltype(curl_slist_append)>("curl_slist_append")(list, text);
}

curl_version_info_data* curl_version_info(CURLversion stamp)
{
    static curl_version_info_data info;
    info = *real<decltype(curl_version_info)>("curl_version_info")(stamp);
    if (standin_ssh_backend != nullptr)
        info.libssh_version = standin_ssh_backend;
    return &info;
}

void curl_slist_free_all(curl_slist* list)
{
    real<decltype(curl_slist_free_all)>("curl_slist_free_all")(list);
}

} // extern "C"

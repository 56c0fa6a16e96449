#include "sftp/curllibrary.h"

#include <dlfcn.h>

namespace {

// The name every libcurl 7 and 8 has carried, on the board as on the PC.
const char* const kLibraryName = "libcurl.so.4";

template <typename Function>
bool bindSymbol(void* handle, const char* name, Function*& function, std::string& error)
{
    function = reinterpret_cast<Function*>(dlsym(handle, name));
    if (function == nullptr && error.empty())
        error = std::string(kLibraryName) + ": no " + name;
    return function != nullptr;
}

} // namespace

CurlLibrary::CurlLibrary()
{
    m_handle = dlopen(kLibraryName, RTLD_NOW | RTLD_NODELETE);
    if (m_handle == nullptr) {
        const char* why = dlerror();
        m_error = why != nullptr ? why : kLibraryName;
        return;
    }
    if (!bindAll()) {
        unbindAll();
        dlclose(m_handle);
        m_handle = nullptr;
    }
}

CurlLibrary::~CurlLibrary()
{
    if (m_handle != nullptr)
        dlclose(m_handle);
}

bool CurlLibrary::bindAll()
{
    bool ok = bindSymbol(m_handle, "curl_global_init", global_init, m_error);
    ok = bindSymbol(m_handle, "curl_global_cleanup", global_cleanup, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_easy_init", easy_init, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_easy_setopt", easy_setopt, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_easy_perform", easy_perform, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_easy_cleanup", easy_cleanup, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_easy_strerror", easy_strerror, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_slist_append", slist_append, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_slist_free_all", slist_free_all, m_error) && ok;
    ok = bindSymbol(m_handle, "curl_version_info", version_info, m_error) && ok;
    return ok;
}

void CurlLibrary::unbindAll()
{
    global_init = nullptr;
    global_cleanup = nullptr;
    easy_init = nullptr;
    easy_setopt = nullptr;
    easy_perform = nullptr;
    easy_cleanup = nullptr;
    easy_strerror = nullptr;
    slist_append = nullptr;
    slist_free_all = nullptr;
    version_info = nullptr;
}

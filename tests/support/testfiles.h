// Small file helpers for tests: a scratch folder that cleans itself up, whole-file reads and writes.
#ifndef TOV_TESTS_TESTFILES_H
#define TOV_TESTS_TESTFILES_H

#include <sys/types.h>

#include <string>

namespace tovtest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // path() + "/" + name
    std::string operator/(const std::string& name) const;

private:
    std::string m_path;
};

std::string readText(const std::string& path);
void writeText(const std::string& path, const std::string& text);
mode_t fileMode(const std::string& path);
// The journal of the faked system commands inside a simulated unit.
std::string unitJournal();
// True inside a simulated unit. Binaries whose cases write the unit's fixed paths refuse to run
// anywhere else; this prints why.
bool insideUnit(const char* program);

} // namespace tovtest

#endif

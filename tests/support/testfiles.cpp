#include "testfiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tovtest {

TempDir::TempDir()
{
    char pattern[] = "/tmp/tovtest.XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::operator/(const std::string& name) const
{
    return m_path + "/" + name;
}

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

mode_t fileMode(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return 0;
    return st.st_mode & 07777;
}

std::string unitJournal()
{
    return readText("/run/tovsim/journal");
}

bool insideUnit(const char* program)
{
    if (access("/run/tovsim/unit", F_OK) == 0)
        return true;
    fprintf(stderr, "These tests write the unit's fixed paths: run them through "
                    "\"sim/tovsim exec -- %s\", never on this machine directly.\n",
            program);
    return false;
}

} // namespace tovtest

#include "app/phasefile.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

namespace {
const long kLastPhase = 3;
const int kLineCount = 3;
} // namespace

bool parsePhaseText(const std::string& text, TovPhaseState& state)
{
    std::vector<std::string> lines;
    std::string::size_type start = 0, end;
    while ((end = text.find('\n', start)) != std::string::npos) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    if (start != text.size() || lines.size() != kLineCount)
        return false;
    const long phase = strtol(lines[0].c_str(), nullptr, 10);
    if (phase < 0 || phase >= kLastPhase)
        return false;
    state.phase = static_cast<int>(phase);
    state.restoreChoice = static_cast<int>(strtol(lines[1].c_str(), nullptr, 10));
    state.serverAddress = lines[2];
    return true;
}

bool tovReadPhaseFile(const std::string& path, TovPhaseState& state)
{
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open())
        return false;
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        return false;
    return parsePhaseText(text, state);
}

// The phase file as the main window reads it at start: the phase, the restore choice and the
// server address, one per line. Kept apart from the window so that its rules are checked on any
// text, not only on what the bench itself writes.
#ifndef TOV_APP_PHASEFILE_H
#define TOV_APP_PHASEFILE_H

#include <string>

struct TovPhaseState {
    int phase = 0;          // phases already passed: 0, 1 or 2
    int restoreChoice = 0;  // non-zero: restore customer files at the end
    std::string serverAddress;
};

// True and state filled only for exactly three lines, each ended by a line feed, whose first holds
// a phase the bench writes (0 to 2). Anything else leaves state untouched and the bench starts
// again from its first phase; a last line without its line feed is a file cut short while it was
// written, whose address cannot be trusted.
bool parsePhaseText(const std::string& text, TovPhaseState& state);

// The file at path read whole and judged as above; false when it cannot be read.
bool tovReadPhaseFile(const std::string& path, TovPhaseState& state);

#endif

// The TOV board's ten pins as the bench's map creates them, with the role the test stage names each
// by, and what creating and releasing the map leaves in the GPIO emulator's journal.
#ifndef TOV_TESTS_BOARDPINS_H
#define TOV_TESTS_BOARDPINS_H

#include <string>

namespace tovtest {

struct BoardPin {
    int pin;
    bool relay;
    const char* role; // "" for the relays the stage leaves alone
};

const BoardPin kBoardPins[] = {
    {138, true, "ALARME INVERSEUR"}, {135, true, "ALIM BUS MODULES"}, {136, true, "ALARME NIVEAU BAS"},
    {230, true, ""}, {232, true, ""}, {200, false, "MARCHE COMPRESSEUR"}, {201, false, "MARCHE CENTRAL"},
    {202, false, "RESERVE"}, {41, false, "DIPSWITCH_SW2_2"}, {42, false, "DIPSWITCH_SW2_1"}};

// Each pin exported in turn, each relay turned to an output, each input read once at once (idle).
inline std::string boardBuiltJournal()
{
    std::string journal;
    for (const BoardPin& p : kBoardPins) {
        const std::string number = std::to_string(p.pin);
        journal += "export " + number + "\n" + (p.relay ? "direction " + number + " out\n" : "read " + number + " 1\n");
    }
    return journal;
}

inline std::string boardReleasedJournal()
{
    std::string journal;
    for (const BoardPin& p : kBoardPins)
        journal += "unexport " + std::to_string(p.pin) + "\n";
    return journal;
}

} // namespace tovtest

#endif

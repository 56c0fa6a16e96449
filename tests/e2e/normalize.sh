# shellcheck shell=bash
# Sourced by the end-to-end comparisons (tests/e2e/test_scenario.sh on the host, tests/arm/board_cycle.sh
# on the emulated board): what the unit went through, with the lines that differ from one machine or
# one minute to the next written as placeholders: the kernel release, the date and time, the free
# megabytes of /home (they follow the bench's size).
normalize() {
    sed -E -e 's/^Kernel Version: .*/Kernel Version: <kernel>/' \
        -e 's#^Date/Heure du TOV: [0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}$#Date/Heure du TOV: <date>#' \
        -e 's#^(Espace de Stockage \(libre/total\): )[0-9]+Mo/#\1<free>Mo/#' \
        -e '/^  screenshot /d' -e '/^  panel lines /d' "$1"
}

failures=0
compare() { # compare WHAT EXPECTED_FILE ACTUAL_TEXT
    local diff
    if ! diff=$(diff -u --label expected --label actual "$2" <([[ -z $3 ]] || printf '%s\n' "$3")); then
        printf 'FAIL %s\n%s\n' "$1" "$diff"
        failures=$((failures + 1))
    fi
}

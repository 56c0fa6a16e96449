#!/usr/bin/env bash
# Every scenario on the emulated board: the seven of the host (good, no-network, faulty-module,
# server-down, reset-phase2, faulty-module-phase2, usb-restore) played whole with the armhf bundle and their first phase
# with the armel one, two runs at a time (the board has one processor: a core each), each held to
# the host's expected lines (tests/arm/board_cycle.sh). Prints each run's verdict and time.
#
#   tests/arm/board_scenarios.sh OUT
#
# Needs both bundles (scripts/arm-bundle armhf, armel). About 25 minutes on two otherwise idle cores.
set -uo pipefail
OUT=$1
TOP=$(readlink -f "$(dirname "$0")/../..")
SCENARIOS=(good no-network faulty-module server-down reset-phase2 faulty-module-phase2 usb-restore)
mkdir -p "$OUT"
runs=()
for scenario in "${SCENARIOS[@]}"; do
    runs+=("armhf $scenario cycle" "armel $scenario phase")
done

started=$(date +%s)
failed=()
play() { # play ARCH SCENARIO STEPS: one run, its output in OUT/ARCH-SCENARIO.log
    local begun status=0
    begun=$(date +%s)
    "$TOP/tests/arm/board_cycle.sh" "$1" "$2" "$3" "$OUT/$1-$2" >"$OUT/$1-$2.log" 2>&1 || status=$?
    echo "$status $(( $(date +%s) - begun ))" >"$OUT/$1-$2.status"
}
for ((i = 0; i < ${#runs[@]}; i += 2)); do
    pids=()
    for run in "${runs[@]:i:2}"; do
        # shellcheck disable=SC2086 # the run's three words
        play $run &
        pids+=("$!")
    done
    wait "${pids[@]}"
    for run in "${runs[@]:i:2}"; do
        read -r arch scenario steps <<<"$run"
        read -r status seconds <"$OUT/$arch-$scenario.status"
        verdict=$([[ $status -eq 0 ]] && echo passed || echo "FAILED (status $status)")
        printf '%-6s %-20s %-6s %s in %d s\n' "$arch" "$scenario" "$steps" "$verdict" "$seconds"
        if [[ $status -ne 0 ]]; then
            failed+=("$arch $scenario")
            tail -n 30 "$OUT/$arch-$scenario.log" | sed 's/^/    /'
        fi
    done
done
echo "board_scenarios: ${#runs[@]} runs, ${#failed[@]} failed, $(( $(date +%s) - started )) s in all; runs in $OUT"
[[ ${#failed[@]} -eq 0 ]]

# Sourced by the shell scripts that read the unit's starter: the script the unit runs at every
# boot, whose line TOV_BIN_NAME=NAME names the program in /home/TOV it starts.
# shellcheck shell=bash

# starter_program FILE: the program the starter FILE names, from its first TOV_BIN_NAME line;
# nothing when it has none.
starter_program() { sed -n 's/^TOV_BIN_NAME=//p' "$1" | head -n 1; }

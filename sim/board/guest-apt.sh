# Sourced by the scripts of sim/board: the board's private apt state in $BASE/apt
# (scripts/private-apt.sh), which resolves and downloads Debian's armhf packages (and amd64 ones,
# for this machine's half of kbuild). apt_options is what apt-get and apt-cache take to use it;
# guest_apt_update fetches the package indexes, once per run and only when something is to be
# resolved or downloaded; guest_deb prints a package's file, downloading it the first time.
# shellcheck shell=bash

# shellcheck source=scripts/private-apt.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/private-apt.sh"
private_apt "$BASE/apt" "$(apt_sources)" armhf amd64
# Once per run: of the first script of sim/board that sources this, its subshells and the scripts
# it starts.
export TOV_GUEST_APT_RUN=${TOV_GUEST_APT_RUN:-$$}

guest_apt_update() {
    [[ $(cat "$apt_dir/updated-by" 2>/dev/null) != "$TOV_GUEST_APT_RUN" ]] || return 0
    private_apt_update "board packages" || return 1
    echo "$TOV_GUEST_APT_RUN" >"$apt_dir/updated-by"
}

# guest_deb PACKAGE ARCH [VERSION]: the .deb of PACKAGE for ARCH (all for an arch-independent one),
# VERSION or the newest downloaded (the candidate when none was).
guest_deb() {
    local package=$1 arch=$2 version=${3-} pattern file
    pattern="${package}_${version:-*}_$arch.deb"
    pattern=${pattern//:/%3a}
    file=$(find "$apt_dir/archives" -maxdepth 1 -name "$pattern" | sort -V | tail -n 1)
    if [[ -z $file ]]; then
        guest_apt_update || return 1
        (cd "$apt_dir/archives" && apt-get "${apt_options[@]}" download -qq "$package:$arch${version:+=$version}" >&2) ||
            return 1
        file=$(find "$apt_dir/archives" -maxdepth 1 -name "$pattern" | sort -V | tail -n 1)
    fi
    [[ -n $file ]] && echo "$file"
}

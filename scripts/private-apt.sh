# Sourced by the scripts that take Debian packages for the boards (scripts/arm-sysroot, and the
# emulated board's sim/board/kernel and sim/board/guest-apt.sh): a private apt state in a folder
# of their own, which resolves and downloads packages of other architectures without touching
# this machine's package setup, and whose package indexes must all download.
# shellcheck shell=bash

# private_apt DIR SOURCES ARCH...: the state in DIR, resolving from SOURCES (a .sources or .list
# file) for the architectures ARCH (the first one native). Sets apt_dir and apt_options, what
# apt-get and apt-cache take to use it.
private_apt() {
    apt_dir=$1
    local sources=$2 arch
    shift 2
    mkdir -p "$apt_dir"/{lists/partial,archives/partial,sources.list.d,preferences.d,cache}
    [[ -e $apt_dir/status ]] || : >"$apt_dir/status"
    rm -f "$apt_dir"/sources.list.d/*
    case $sources in
        *.sources) cp "$sources" "$apt_dir/sources.list.d/debian.sources" ;;
        *) cp "$sources" "$apt_dir/sources.list.d/debian.list" ;;
    esac
    apt_options=(
        -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d" -o Dir::Etc::SourceList=/dev/null
        -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
        -o "Dir::Cache=$apt_dir/cache" -o "Dir::Cache::Archives=$apt_dir/archives"
        -o Dir::Etc::Preferences=/dev/null -o "Dir::Etc::PreferencesParts=$apt_dir/preferences.d"
        -o "APT::Architecture=$1"
        -o Debug::NoLocking=1 -o APT::Sandbox::User=root
    )
    for arch in "$@"; do
        apt_options+=(-o "APT::Architectures::=$arch")
    done
}

# The sources apt resolves from: TOV_APT_SOURCES (e.g. a factory's mirror or a snapshot), else
# this machine's.
apt_sources() {
    local sources=${TOV_APT_SOURCES:-}
    if [[ -z $sources ]]; then
        sources=/etc/apt/sources.list.d/debian.sources
        [[ -f $sources ]] || sources=/etc/apt/sources.list
    fi
    readlink -f "$sources"
}

# private_apt_update WHO: fetches every package index of the state anew (lists of an earlier run
# are never reused), each tried three times. An index that does not download stops WHO with
# status 1, naming it: what is resolved without it, the security suite's say, would lack its
# fixes. TOV_SYSROOT_WITHOUT_FAILED_INDEX=1 goes on without it, loudly; apt_missing then names
# the indexes left out (empty when none was).
private_apt_update() {
    local who=$1 try
    apt_missing=
    rm -rf "$apt_dir/lists"
    mkdir -p "$apt_dir/lists/partial"
    # A mirror that is syncing fails one index now and then: it is fetched again a little later.
    # An index that fails for a network reason is only a warning to apt, which then goes on with
    # what it has: --error-on=any makes it an error like the others.
    for try in 1 2 3; do
        echo "$who: fetching package lists (try $try)" >&2
        # apt's own retries (three, with pauses) only add to these.
        if apt-get "${apt_options[@]}" -o Acquire::Retries=0 update -qq --error-on=any 2>"$apt_dir/update.err"; then
            return 0
        fi
        apt_missing=$(sed -n 's/^E: Failed to fetch \(.*\)/\1/p; s/^E: \(The repository .*\)/\1/p' "$apt_dir/update.err")
        [[ -n $apt_missing ]] || apt_missing=$(grep '^E: ' "$apt_dir/update.err" || cat "$apt_dir/update.err")
        [[ $try -eq 3 ]] || sleep $((try * 5))
    done
    if [[ -z ${TOV_SYSROOT_WITHOUT_FAILED_INDEX-} ]]; then
        {
            echo "$who: a package index did not download after 3 tries; stopping, as packages"
            echo "resolved without it could lack their security fixes:"
            echo "$apt_missing" | sed 's/^/  /'
            echo "(TOV_SYSROOT_WITHOUT_FAILED_INDEX=1 goes on without it)"
        } >&2
        return 1
    fi
    {
        echo "$who: WARNING: resolved without these package indexes (TOV_SYSROOT_WITHOUT_FAILED_INDEX);"
        echo "its packages may lack the fixes those indexes carry:"
        echo "$apt_missing" | sed 's/^/  /'
    } >&2
}

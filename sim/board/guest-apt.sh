# Sourced by the scripts of sim/board: a private apt state in $BASE/apt that resolves and downloads
# Debian's armhf packages (and amd64 ones, for this machine's half of kbuild) without touching this
# machine's package setup. apt_options is what apt-get and apt-cache take to use it; guest_deb
# prints a package's file, downloading it the first time.

apt_dir=$BASE/apt
mkdir -p "$apt_dir"/{lists/partial,archives/partial,sources.list.d,preferences.d,cache}
[[ -e $apt_dir/status ]] || : >"$apt_dir/status"
cp /etc/apt/sources.list.d/debian.sources "$apt_dir/sources.list.d/" 2>/dev/null ||
    cp /etc/apt/sources.list "$apt_dir/sources.list.d/debian.list"
apt_options=(
    -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d" -o Dir::Etc::SourceList=/dev/null
    -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
    -o "Dir::Cache=$apt_dir/cache" -o "Dir::Cache::Archives=$apt_dir/archives"
    -o Dir::Etc::Preferences=/dev/null -o "Dir::Etc::PreferencesParts=$apt_dir/preferences.d"
    -o APT::Architecture=armhf -o APT::Architectures::=armhf -o APT::Architectures::=amd64
    -o Debug::NoLocking=1 -o APT::Sandbox::User=root
)

# guest_deb PACKAGE ARCH [VERSION]: the .deb of PACKAGE for ARCH (all for an arch-independent one),
# VERSION or the newest downloaded (the candidate when none was).
guest_deb() {
    local package=$1 arch=$2 version=${3-} pattern file
    pattern="${package}_${version:-*}_$arch.deb"
    pattern=${pattern//:/%3a}
    file=$(find "$apt_dir/archives" -maxdepth 1 -name "$pattern" | sort -V | tail -n 1)
    if [[ -z $file ]]; then
        (cd "$apt_dir/archives" && apt-get "${apt_options[@]}" download -qq "$package:$arch${version:+=$version}" >&2) ||
            return 1
        file=$(find "$apt_dir/archives" -maxdepth 1 -name "$pattern" | sort -V | tail -n 1)
    fi
    [[ -n $file ]] && echo "$file"
}

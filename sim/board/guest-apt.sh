# Sourced by the scripts of sim/board: a private apt state in $BASE/apt that resolves and downloads
# Debian's armhf packages (and amd64 ones, for this machine's half of kbuild) without touching this
# machine's package setup. apt_options is what apt-get and apt-cache take to use it.

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

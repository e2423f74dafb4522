# Shared by run.sh and test.sh: installs missing Debian packages and builds.

PELSU_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# The packages the engine, pelsu-cli, the desktop client and their tests build with (the
# client's tests start a private session bus, hence dbus).
PELSU_PACKAGES=(cmake ninja-build g++ pkg-config libexpat1-dev libcurl4-openssl-dev
                libcpp-httplib-dev libssl-dev libgtest-dev libgmock-dev libbenchmark-dev
                nlohmann-json3-dev python3-feedparser
                python3 perl qt6-base-dev qt6-svg-dev qt6-webengine-dev libcanberra-dev dbus
                xvfb trayer xdotool x11-utils)

# ensure_packages PACKAGE...: installs those that are missing (as root), or says how.
ensure_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        echo "Installing: ${missing[*]}"
        apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
    else
        echo "Missing Debian packages. Run this once, then try again:" >&2
        echo "  sudo apt-get install -y ${missing[*]}" >&2
        exit 1
    fi
}

# build_tree DIR [CMAKE OPTIONS...]: configures (first time) and builds incrementally.
build_tree() {
    local dir="$1"
    shift
    cmake -S "$PELSU_ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    ninja -C "$dir" -j"$(nproc)"
}

# Sourced by the README's commands: makes sure the Debian packages they need are installed.
# As root the missing ones are installed with apt-get; otherwise they are named and the
# command stops.
ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        if [ "$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null)" != "install ok installed" ]; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing Debian packages: ${missing[*]}" >&2
        echo "Install them with: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing Debian packages: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# What building and running the daemon needs.
BUILD_PACKAGES=(cmake make g++ util-linux mount tzdata python3 faketime)
# What the tests need beyond that: GoogleTest.
TEST_PACKAGES=(libgtest-dev googletest)
# The install tests (ctest -L install): shellcheck for the init script, groff for the man
# pages, systemd-analyze to verify the unit, and dpkg for dpkg-deb, the architecture and
# start-stop-daemon.
INSTALL_TEST_PACKAGES=(shellcheck groff-base systemd dpkg)
# The 32-bit builds (x86 and the routers' CPUs), GoogleTest's sources built for each, and
# the emulator that runs their tests. A cross compiler rather than g++-multilib for x86:
# Debian's multilib packages conflict with the cross compilers.
CROSS_PACKAGES=(g++-i686-linux-gnu g++-mips-linux-gnu g++-arm-linux-gnueabihf qemu-user googletest)
# The browser test of the report's HTML page (ctest -L browser): headless Chromium, and a
# font for the text of its screenshot.
BROWSER_TEST_PACKAGES=(chromium fonts-dejavu-core)
# The fuzz targets (scripts/fuzz.sh): clang with its libFuzzer and sanitizer runtimes.
FUZZ_PACKAGES=(clang libclang-rt-14-dev)

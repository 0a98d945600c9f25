# Sourced by the other scripts: what the project needs of the distribution, and how it gets there.

build_packages=(g++ cmake ninja-build pkg-config libpcap-dev zlib1g-dev libcli11-dev nlohmann-json3-dev
    libmicrohttpd-dev libdpdk-dev libedit-dev)
test_packages=(libgtest-dev libgmock-dev libbenchmark-dev binutils tshark iproute2 python3 prometheus)
bench_packages=(libbenchmark-dev libdpdk-dev dpdk-dev tcpdump)
live_packages=(libdpdk-dev iproute2 tcpdump tshark python3)
lint_packages=(clang-format clang-tidy)
operating_packages=(curl iproute2 python3 tcpreplay tshark)
fuzz_packages=(clang llvm)
package_packages=(dpkg-dev lintian man-db mandoc systemd binutils gcc libc6-dev)
model_packages=(spin gcc libc6-dev)

# Installs what is missing of the packages named; asks for nothing when all are there.
ensure_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local root=()
    [ "$(id -u)" -eq 0 ] || root=(sudo)
    echo "installing: ${missing[*]}"
    "${root[@]}" apt-get update -qq
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures a directory: configure_tree DIR [CMAKE-OPTION...]
configure_tree() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja "$@" >"$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log" >&2; return 1; }
    rm -f "$dir.configure.log"
}

# The same, and builds all of it.
build_tree() {
    configure_tree "$@"
    cmake --build "$1"
}

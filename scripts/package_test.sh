#!/usr/bin/env bash
# Checks the packages of scripts/package.sh: what lintian and systemd say of them, that they name
# nothing of the build tree, that their programs run a replay and serve a client in a root that has
# nothing else, and that a module and a client can be built with what they bring.
# Usage: scripts/package_test.sh   (without root, the empty root is skipped, and said so)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
ensure_packages "${build_packages[@]}" "${package_packages[@]}"

fail() {
    echo "package_test.sh: $*" >&2
    exit 1
}

packages=(build-package/*.deb)
[ -e "${packages[0]}" ] || fail "there are no packages: scripts/package.sh builds them"
work=$(mktemp -d)
engine=
clean_up() {
    [ -z "$engine" ] || kill "$engine" 2>/dev/null || true
    umount "$work/root/proc" 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT
root=$work/root
for package in "${packages[@]}"; do
    dpkg-deb -x "$package" "$root"
    dpkg-deb -e "$package" "$work/control-$(basename "$package" .deb)"
done
libraries=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)

echo "== lintian =="
lintian --allow-root --tag-display-limit 0 --fail-on error \
    --suppress-tags bad-distribution-in-changes-file "${packages[@]}"

echo "== the service =="
sed "s,=/usr/bin/,=$root/usr/bin/,; /^ExecReload/d" "$root/usr/lib/systemd/system/lyr-host.service" \
    >"$work/lyr-host.service"
systemd-analyze verify --man=no "$work/lyr-host.service"
systemd-analyze security --offline=true --no-pager "$work/lyr-host.service" | tail -n 1
systemd-sysusers --root="$root" "$root/usr/lib/sysusers.d/lyr-host.conf"
grep -q '^lyr-host:' "$root/etc/passwd" || fail "the user lyr-host is not made"
grep -q '^lyr-host:' "$root/etc/group" || fail "the group lyr-host is not made"
for script in "$work"/control-*/{postinst,prerm,postrm}; do
    [ ! -e "$script" ] || sh -n "$script"
done

echo "== the build tree =="
if grep -rlaF "$PWD" "$root"; then
    fail "these name the build tree"
fi
for file in "$root"/usr/bin/* "$libraries"/*.so "$libraries"/lyr_host/*.so; do
    if readelf -d "$file" | grep -E 'RPATH|RUNPATH'; then
        fail "$file looks for libraries in a place of its own"
    fi
done
for library in "$libraries"/*.so; do
    readelf -d "$library" | grep -q 'SONAME.*\.so\.[0-9]' || fail "$library has no version"
done

echo "== modules and clients =="
export PKG_CONFIG_PATH=$libraries/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
# shellcheck disable=SC2046
gcc -std=c11 -Wall -Werror -shared -fPIC tests/engine/sample_module.c -o "$work/sample_module.so" \
    $(pkg-config --cflags --libs kes_host mund_ser_lyrhost)
# shellcheck disable=SC2046
gcc -std=c11 -Wall -Werror examples/tunnels.c -o "$work/tunnels" $(pkg-config --cflags --libs lyrclient)

PYTHONPATH=$root/usr/lib/python3/dist-packages python3 -B -c 'import lyr_host'

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: an empty root needs root"
    exit 0
fi
echo "== an empty root =="
# What the packages depend on stands in for them: the libraries that the programs need, and no more.
needed() {
    LD_LIBRARY_PATH=$libraries ldd "$@" | sed -n 's/.*\(=> \|^\t\)\(\/[^ ]*\) (.*/\2/p' | grep -v "^$root" | sort -u
}
needed "$root"/usr/bin/* "$libraries"/lyr_host/*.so | while read -r library; do
    mkdir -p "$root$(dirname "$library")"
    cp -L "$library" "$root$library"
done
mkdir -p "$root"/{tmp,dev,run/lyr-host,var/lib/lyr-host}
cp "$work/sample_module.so" "$root/tmp"
inside() {
    chroot "$root" /usr/bin/"$@"
}
[ ! -e "$root/usr/bin/kes_dpdk" ] || inside kes_dpdk --version
inside capwap_gen --out /tmp/day.pcap --commands /tmp/site.commands --aps 12 --instances 4 \
    --mix all,damaged=0 >/dev/null
inside kes_engine --exec /tmp/site.commands --replay /tmp/day.pcap --rx-port 7 \
    --capability WCWP_SPEC_SVC_NUM=3 2>"$work/log" >"$work/report" ||
    fail "the replay went wrong: $(tail -n 3 "$work/log")"
grep -q '^conserved *yes' "$work/report" || fail "the report says otherwise"
head -n 9 "$work/report"
# It takes every packet that it sees, and no instance of its own gets it: none is to come.
inside kes_engine --module /tmp/sample_module.so --replay /tmp/day.pcap --filter "port 1" >/dev/null ||
    fail "a module built with the package's headers does not run"

# The mode of a socket is set through /proc.
mkdir "$root/proc"
if ! mount -t proc proc "$root/proc" 2>/dev/null; then
    echo "skipped: serving clients needs the right to mount /proc"
    exit 0
fi
chroot "$root" /usr/bin/kes_engine --serve --config /etc/lyr-host/lyr-host.conf --control /run/lyr-host/lyr_host.sock \
    --control-group lyr-host >/dev/null 2>"$work/log" &
engine=$!
for _ in $(seq 100); do
    grep -q 'serving clients' "$work/log" && break
    sleep 0.1
done
[ "$(stat -c '%a %g' "$root/run/lyr-host/lyr_host.sock")" = \
    "660 $(sed -n 's/^lyr-host:[^:]*:\([0-9]*\).*/\1/p' "$root/etc/group")" ] ||
    fail "the socket is not the group's: $(ls -ln "$root/run/lyr-host/lyr_host.sock")"
inside lyrctl tunnel add 10.64.0.1 49809 10.0.0.1 5246 --node 0
inside lyrctl tunnel count --port 5246
kill "$engine"
wait "$engine" || fail "the engine did not stop in order"
engine=
echo "package_test.sh: ok"

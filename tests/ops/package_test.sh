#!/bin/sh
# Builds the Debian packages of a configured build tree, unpacks them into a throw-away root and
# checks the file list, the package relations, the unit (systemd-analyze verify) and that the
# installed program reports readiness and stops cleanly as a notify service.
# Usage: package_test.sh BUILD_DIR SOURCE_DIR WITH_ENGINE(0|1)
set -eu
build=$1
source=$2
with_engine=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/package-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
server_deb=$(ls "$work"/out/centralizedserver_*.deb)
simulator_deb=$(ls "$work"/out/tidewell-simulator_*.deb)
root="$work/root"
mkdir -p "$root"
for deb in "$work"/out/*.deb; do dpkg-deb -x "$deb" "$root"; done

for file in \
    opt/quellwick/vistrel/centralizedserver/centralizedserver \
    opt/quellwick/vistrel/centralizedserver/grafana_to_tshark.yaml \
    opt/quellwick/tidewell/firmware/firmware.xml \
    opt/quellwick/tidewell/lib/libTidewellAPI.so \
    etc/centralizedserver/centralizedserver.yml \
    lib/systemd/system/centralizedserver.service \
    usr/share/doc/centralizedserver/openapi.yaml \
    usr/share/doc/centralizedserver/grafana/dashboard.json \
    usr/share/doc/centralizedserver/grafana/provisioning/datasources/vistrel.yaml; do
    [ -f "$root/$file" ] || fail "missing /$file"
done
[ -x "$root/opt/quellwick/vistrel/centralizedserver/centralizedserver" ] || fail "not executable"
if [ "$with_engine" = 1 ]; then
    [ -x "$root/opt/quellwick/vistrel/watchkeep/watchkeep" ] || fail "missing the engine"
fi
# Nothing of the build tree or the test stand-ins is shipped.
if find "$root" -name '*standin*' | grep -q .; then fail "a stand-in is packaged"; fi
readelf -d "$root/opt/quellwick/vistrel/centralizedserver/centralizedserver" |
    grep -q 'R.*PATH.*\[/opt/quellwick/tidewell/lib\]' || fail "the program does not look for the device library where it is installed"

dpkg-deb -f "$server_deb" Depends | grep -q 'tidewell-api' || fail "server does not need a device library"
dpkg-deb -f "$simulator_deb" Provides | grep -q 'tidewell-api' || fail "simulator provides no device library"
dpkg-deb -e "$server_deb" "$work/control"
grep -qx /etc/centralizedserver/centralizedserver.yml "$work/control/conffiles" || fail "configuration is not a conffile"
for script in postinst prerm postrm; do sh -n "$work/control/$script" || fail "$script"; done

# The unit against the unpacked files and the system's own units.
mkdir -p "$root/usr/lib/systemd" "$root/tmp"
cp -a /usr/lib/systemd/system "$root/usr/lib/systemd/"
systemd-analyze verify --man=no --generators=no --root="$root" \
    /lib/systemd/system/centralizedserver.service || fail "systemd-analyze verify"

# The installed program as the service runs it, in a sandbox of its own.
port=$(/usr/bin/python3 -c '
import random, socket
while True:
    port = random.randint(20000, 45000)
    try:
        socket.socket().bind(("127.0.0.1", port))
        print(port)
        break
    except OSError:
        pass')
mkdir -p "$work/home" "$work/tmp"
HOME="$work/home" TMPDIR="$work/tmp" QUELLWICK_ROOT="$root/opt/quellwick" \
    LD_LIBRARY_PATH="$root/opt/quellwick/tidewell/lib" \
    /usr/bin/python3 "$source/tests/ops/service_notify_check.py" "$port" \
    "$root/opt/quellwick/vistrel/centralizedserver/centralizedserver" --mode daemon \
    --host 127.0.0.1 --port "$port" --database "$work/home/index.db" || fail "service run"
echo "package checks passed"

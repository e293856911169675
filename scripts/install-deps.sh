#!/bin/sh
# Installs the Debian packages the build, the tests and the benchmarks need.
# Only missing packages are fetched, so a second run costs a few dpkg queries.
set -e
PACKAGES="build-essential cmake pkg-config libmicrohttpd-dev libyaml-cpp-dev libsqlite3-dev \
libcurl4-openssl-dev nlohmann-json3-dev libpugixml-dev libgtest-dev libgmock-dev \
libbenchmark-dev libpcap-dev tshark wireshark-common curl openssl"
if [ "${1:-}" = "--bench" ]; then
    PACKAGES="$PACKAGES nginx-light tcpreplay softflowd argus-server"
fi
if [ "${1:-}" = "--stress" ]; then
    PACKAGES="$PACKAGES python3"
fi
if [ "${1:-}" = "--fuzz" ]; then
    PACKAGES="$PACKAGES clang libclang-rt-14-dev"
fi
missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends $missing

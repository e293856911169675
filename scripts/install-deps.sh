#!/bin/sh
# Installs the Debian packages the build, the tests and the benchmarks need.
# Only missing packages are fetched, so a second run costs a few dpkg queries.
set -e
PACKAGES="build-essential cmake pkg-config libmicrohttpd-dev libyaml-cpp-dev libsqlite3-dev \
libcurl4-openssl-dev nlohmann-json3-dev libpugixml-dev libgtest-dev libgmock-dev \
libbenchmark-dev libpcap-dev tshark wireshark-common curl openssl libsystemd-dev systemd dpkg-dev \
python3 python3-prometheus-client python3-yaml"
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
# The OpenAPI validator comes from npm; Debian's node and npm unless the machine has its own.
command -v npm >/dev/null 2>&1 || missing="$missing nodejs npm"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
if [ -n "$missing" ]; then
    echo "Installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    echo "wireshark-common wireshark-common/install-setuid boolean false" |
        $SUDO debconf-set-selections
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends $missing
fi
if ! command -v swagger-cli >/dev/null 2>&1; then
    echo "Installing: @apidevtools/swagger-cli (npm)"
    $SUDO npm install -g --no-fund --no-audit @apidevtools/swagger-cli@4.0.4
fi

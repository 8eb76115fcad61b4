#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, skipping the
# ones already present. Root runs apt-get itself; anyone else goes through
# sudo. This is the one list of packages: a new dependency is added here.
#
#   tools/install-deps.sh          what the build and the tests need
set -euo pipefail

packages=(
  # the build
  cmake g++ make pkg-config
  # privinspect's command line and its JSON documents
  libcli11-dev nlohmann-json3-dev
  # privinspect anonymise's keyed pseudonyms (HMAC-SHA-256 of libcrypto)
  libssl-dev
  # the tests (python3-jsonschema validates the JSON documents)
  libgtest-dev libgmock-dev python3 python3-jsonschema
  # the map's SVG: well-formed (xmllint) and rendered (rsvg-convert)
  libxml2-utils librsvg2-bin
  # the fuzz targets and the sanitizer runs (clang, libFuzzer, LeakSanitizer)
  clang libclang-rt-14-dev
  # the Debian package (cpack -G DEB)
  dpkg-dev file
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || {
    echo "install-deps: need root or sudo to install: ${missing[*]}" >&2
    exit 1
  }
  as_root=(sudo)
fi
echo "install-deps: installing ${missing[*]}" >&2
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

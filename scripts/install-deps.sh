#!/usr/bin/env bash
# Installs what building and testing liblocal needs on Debian 12, when it is
# missing. Needs root for apt-get; does nothing when everything is present.
#   install-deps.sh [--windows] [--bench]
set -euo pipefail
want_windows=0 want_bench=0
for a in "$@"; do
  case $a in --windows) want_windows=1 ;; --bench) want_bench=1 ;; esac
done

pkgs=(cmake ninja-build g++ gcc clang libgtest-dev googletest libgmock-dev ccache ncompress locales coreutils perl pkg-config
      dpkg-dev unzip abigail-tools)
[ $want_windows = 1 ] && pkgs+=(g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix binutils-mingw-w64 wine64 procps util-linux)
[ $want_bench = 1 ] && pkgs+=(libbenchmark-dev liblz4-dev zlib1g-dev libssl-dev lz4 gzip libclang-rt-14-dev)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" = 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Locales the text tests switch between: a UTF-8 one and a single-byte one.
have() { locale -a 2>/dev/null | tr 'A-Z' 'a-z' | tr -d '-' | grep -qx "$1"; }
SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo
have en_us.utf8 || $SUDO localedef -i en_US -f UTF-8 en_US.UTF-8 || true
have en_us.iso88591 || $SUDO localedef -i en_US -f ISO-8859-1 en_US.ISO-8859-1 || true
exit 0

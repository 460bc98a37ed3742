#!/usr/bin/env bash
# Installs the Debian packages the build, tests and tools need, when missing.
set -euo pipefail
packages=(cmake make g++ libgtest-dev libbenchmark-dev android-liblog android-liblog-dev binutils python3 python3-matplotlib valgrind pkg-config python3-dev pybind11-dev python3-numpy python3-pandas python3-pytest libcli11-dev libfast-float-dev python3-optuna python3-sqlalchemy python3-psycopg2 python3-cmaes postgresql libeigen3-dev zlib1g-dev)
if [ "${QVN_WITH_FUZZ:-0}" = 1 ]; then packages+=(clang libclang-rt-14-dev); fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}" >&2
  sudo_cmd=""
  [ "$(id -u)" = 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y "${missing[@]}"
fi

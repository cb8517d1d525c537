#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
set -euo pipefail
pkgs=(cmake g++ make pkg-config zlib1g-dev libbz2-dev libarchive-dev libcurl4-openssl-dev
      libopenblas-dev liblapack-dev libgtest-dev)
# Peers that tests and benchmarks compare against; optional.
optional=(coinor-clp coinor-cbc glpk-utils gnuplot-nox)
missing=()
for p in "${pkgs[@]}" "${optional[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  # Required packages must install; the optional peers may be unavailable.
  req=()
  for p in "${missing[@]}"; do
    case " ${optional[*]} " in *" $p "*) ;; *) req+=("$p");; esac
  done
  [ ${#req[@]} -gt 0 ] && $sudo_cmd apt-get install -y -qq --no-install-recommends "${req[@]}"
  for p in "${optional[@]}"; do
    case " ${missing[*]} " in *" $p "*) $sudo_cmd apt-get install -y -qq --no-install-recommends "$p" || echo "note: optional package $p not installed";; esac
  done
fi

#!/usr/bin/env bash
# What the benchmarks run besides Lectern, checked as the commands they call rather than as
# Debian package names, so that tools installed from elsewhere (a Node.js with its own npm) are
# used as they are. For each one missing, the Debian package that brings it is installed as root,
# one at a time so that one conflict does not block the rest; otherwise the apt-get line is
# printed. Nothing here stops `make bench`: a comparison whose tool is still missing is skipped
# by its script, and the table says it was not measured and why.
#
# Usage: bench/deps.sh   (env: LECTERN_BENCH_PYTHON=/usr/bin/python3, LECTERN_BENCH_DEPS_DRY_RUN=1
#                         names what it would install and installs nothing)
set -uo pipefail
python=${LECTERN_BENCH_PYTHON:-/usr/bin/python3}
dry_run=${LECTERN_BENCH_DEPS_DRY_RUN:-}

# tool|Debian package|what needs it
tools=(
  "time|time|every script: wall time and peak memory"
  "curl|curl|bench/sync, bench/scale: waiting for the local server"
  "script|bsdutils|bench/scale: the terminal reader on a pseudo-terminal"
  "xmllint|libxml2-utils|bench/feeds: the parse floor; bench/startup.sh: the start-up floor"
  "newsboat|newsboat|bench/sync: the refresh peer"
  "readability|python3-readability|bench/content: the python3-readability peer"
  "node|nodejs|bench/content: the readability.js peer"
  "npm|npm|bench/content: installs readability.js and jsdom"
)

have() {
  case "$1" in
    time) [ -x /usr/bin/time ] ;;
    readability) [ -x "$python" ] && "$python" -c 'import readability' > /dev/null 2>&1 ;;
    *) command -v "$1" > /dev/null ;;
  esac
}

# A Node.js that no Debian package of nodejs installed (nvm, a tarball) or one from another
# repository: Debian's npm depends on Debian's nodejs and would fight it ("held broken packages").
node_from_elsewhere() {
  local node owner
  node=$(command -v node) || return 1
  owner=$(dpkg -S "$(readlink -f "$node")" 2> /dev/null | cut -d: -f1)
  [ "$owner" != nodejs ] && return 0
  ! dpkg-query -W -f='${Version}' nodejs 2> /dev/null | grep -Eq 'deb[0-9]+u|dfsg'
}

updated=
install() {  # package -> installs it alone; fails quietly, the caller checks the command again
  if [ -n "$dry_run" ]; then
    echo "bench-deps: would install $1"
    return 0
  fi
  if [ -z "$updated" ]; then
    apt-get update -qq || true
    updated=1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$1" > /dev/null ||
    echo "bench-deps: apt-get could not install $1" >&2
}

to_install=()
missing=()
for entry in "${tools[@]}"; do
  IFS='|' read -r tool package why <<< "$entry"
  have "$tool" && continue
  if [ "$tool" = npm ] && node_from_elsewhere; then
    missing+=("npm ($why): missing beside a Node.js not installed by Debian ($(command -v node));
    install npm with that Node.js (Debian's npm would conflict with it)")
    continue
  fi
  if [ "$(id -u)" = 0 ]; then
    install "$package"
    if [ -z "$dry_run" ] && ! have "$tool"; then
      missing+=("$tool ($why): still missing after installing $package")
    fi
  else
    to_install+=("$package")
    missing+=("$tool ($why)")
  fi
done

if [ ${#to_install[@]} -gt 0 ]; then
  echo "The benchmarks compare against tools that are missing here. Install them with:"
  echo "  sudo apt-get install -y ${to_install[*]}"
fi
for line in "${missing[@]}"; do
  echo "bench-deps: not available: $line; what needs it is skipped" >&2
done
exit 0

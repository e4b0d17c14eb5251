#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the packages of FOLDER in a bare Debian 12 system, uses them as a user and as a developer of a host would,
# removes them, and fails if they leave a file. Needs root and debootstrap. The bare system is made once and kept.
#
# usage: try_packages.sh FOLDER
set -euo pipefail
packages=$(cd "$1" && pwd)
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
base=${RUNEFLOW_BARE_ROOT:-${TMPDIR:-/tmp}/runeflow-bare-root}

if [ ! -e "$base/.ready" ]; then
  printf '\n== Making a bare system in %s\n' "$base"
  mirror=$(sed -n 's/^URIs: *//p; s/^deb \([^ ]*\) .*/\1/p' /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list \
    2>/dev/null | head -n 1 || true)  # one of the two files is usually missing
  rm -rf "$base"
  debootstrap --variant=minbase bookworm "$base" "${mirror:-http://deb.debian.org/debian}" >"$base.log" ||
    { tail "$base.log" >&2; exit 1; }
  cp -r /etc/apt/apt.conf.d/. "$base/etc/apt/apt.conf.d/"  # a proxy, if there is one
  touch "$base/.ready"
fi

root=$(mktemp -d)
trap 'rm -rf --one-file-system "$root"' EXIT
cp -a "$base/." "$root"
cp /etc/resolv.conf /etc/hosts "$root/etc/"
mkdir "$root/srv/packages"
cp "$packages"/*.deb "$root/srv/packages/"
cp "$tree/examples/sample.log" "$tree/examples/minimal_host.cpp" "$root/srv/"
cp -r "$tree/tests/consumer" "$root/srv/consumer"

cat >"$root/srv/try.sh" <<'TRY'
set -euo pipefail
cd /srv
say() { printf '\n== %s\n' "$*"; }
files() { find / -xdev \( -path /proc -o -path /dev -o -path /srv -o -path /tmp -o -path /var/cache -o -path /var/log \
  -o -path /var/lib/apt -o -path /var/lib/dpkg \) -prune -o -print | sort; }
export DEBIAN_FRONTEND=noninteractive
quiet="-qq -y --no-install-recommends -o Dpkg::Use-Pty=0"
apt-get -qq update

say "Installing runeflow"
apt-get $quiet install ./packages/runeflow_*.deb ./packages/libruneflowcore0.1_*.deb >/dev/null
runeflow --version
runeflow capture sample.log --db sample.db
runeflow query sample.db 'connect wifi NOT tag:chatty' --last 2
[ "$(runeflow query sample.db 'connect wifi NOT tag:chatty' | wc -l)" = 50 ]

apt-get $quiet install man-db bash-completion fish zsh >/dev/null
for page in runeflow runeflow-query; do
  [ "$(man --where "$page")" = "/usr/share/man/man1/$page.1.gz" ]
  man "$page" | grep -c . | sed "s/^/man $page: lines: /"
done
bash -ic '. /usr/share/bash-completion/bash_completion
  COMP_WORDS=(runeflow qu) COMP_CWORD=1 COMP_LINE="runeflow qu" COMP_POINT=11
  _completion_loader runeflow || true
  $(complete -p runeflow | sed "s/.*-F \([^ ]*\).*/\1/") runeflow qu runeflow
  [ "${COMPREPLY[*]% }" = query ] && echo "bash completes qu: ${COMPREPLY[*]}"' 2>/dev/null
fish -c 'complete -C "runeflow qu"' | grep ^query
zsh -c 'autoload -Uz compinit && compinit -u -D && echo "zsh completes runeflow with ${_comps[runeflow]}"' |
  grep _runeflow

say "Removing it"
apt-get -qq -y purge man-db bash-completion fish zsh >/dev/null
apt-get -qq -y purge runeflow libruneflowcore0.1 >/dev/null
left=$(dpkg -l | grep -i runeflow || true; find /usr /etc -name '*runeflow*')
[ -z "$left" ] || { echo "$left"; exit 1; }

say "Building a host with the packages"
apt-get $quiet install g++ cmake ninja-build pkgconf >/dev/null
apt-get $quiet install libfmt-dev libicu-dev libspdlog-dev libsqlite3-dev zlib1g-dev >/dev/null
files >before
apt-get $quiet install ./packages/lib*.deb ./packages/runeflow_*.deb >/dev/null
g++ -std=c++23 minimal_host.cpp -o shared_host $(pkg-config --cflags --libs runeflow-core)
g++ -std=c++23 minimal_host.cpp -o static_host -Wl,-Bstatic $(pkg-config --cflags --libs-only-L runeflow-core) \
  -lRuneflowCore -Wl,-Bdynamic $(pkg-config --static --libs runeflow-core | sed 's/-lRuneflowCore//')
cmake -S consumer -B cmake -G Ninja -DHOST_SOURCE=/srv/minimal_host.cpp >/dev/null
cmake --build cmake >/dev/null
for host in ./shared_host ./static_host cmake/consumer; do
  [ "$($host sample.log "${host##*/}.db" 'connect wifi NOT tag:chatty' | wc -l)" = 50 ]
  ldd "$host" | grep -q libRuneflowCore.so.0.1 && kind=shared || kind=static
  echo "$host ($kind): 50 records found"
done

say "Removing all packages"
apt-get -qq -y purge '?name(runeflow)' >/dev/null
files >after
diff before after
echo "nothing left"
TRY
# shellcheck disable=SC2016 # the inner shell expands them
root=$root unshare --mount --propagation private bash -c '
  mount -t proc proc "$root/proc" && mount --rbind /dev "$root/dev" &&
  exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/srv LANG=C.UTF-8 TZ=UTC chroot "$root" bash /srv/try.sh'

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the Debian packages into build/package, twice, and fails if the two builds differ or if lintian finds an error.
# As root, it then installs the packages in a bare Debian system, uses them and removes them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
out=$PWD/build/package
version=$(sed -n '1s/.*(\(.*\)-.*/\1/p' packaging/debian/changelog)

say() { printf '\n== %s\n' "$*"; }

fail() {
  echo "$*" >&2
  exit 1
}

# Builds all packages in the folder $1. dpkg-buildpackage sets SOURCE_DATE_EPOCH to the date of the changelog.
build_in() {
  local source=$1/runeflow-$version
  mkdir -p "$source"
  git ls-files -co --exclude-standard -z | tar -c --null --files-from=- | tar -x -C "$source"
  cp -r packaging/debian "$source/debian"
  (cd "$source" && dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes) >"$1/log" 2>&1 ||
    fail "$(tail -n 40 "$1/log")"$'\n'"dpkg-buildpackage failed; the whole log is $1/log"
}

checksums() { (cd "$1" && sha256sum ./*.deb); }

say "Building the packages"
rm -rf "$out"
build_in "$out"
(cd "$out" && ls -s --block-size=1K ./*.deb)

say "lintian"
lintian --allow-root --fail-on error --display-info --suppress-tags initial-upload-closes-no-bugs "$out"/*.changes

say "Building once more, in another folder"
again=$out/again/in/a/longer/path
build_in "$again"
diff <(checksums "$out") <(checksums "$again") || fail "the two builds differ (the second is $again)"
echo "the same bytes:"
checksums "$out"

if [ "$(id -u)" != 0 ]; then
  echo "skipped: the packages in a bare system, which needs root"
  exit 0
fi
bash packaging/try_packages.sh "$out"

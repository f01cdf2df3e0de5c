#!/usr/bin/env bash
# Makes the archive of a release from its tag, with its checksum, in build/release-archive.
#
#     scripts/release.sh VERSION    1.0.0: from the tag v1.0.0
#
# It refuses a tag whose files name another version. Whoever runs it with the same git gets the same archive.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[[ $# -eq 1 && $1 =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || usage
version=$1
tag=refs/tags/v$version
folder=$project/build/release-archive
archive=netlink_route-$version.tar.gz

# names FILE TEXT: the file of the tag names the version.
names() { git show "$tag:$1" | grep -qF "$2" || die "$1 of the tag v$version does not say \"$2\""; }

install_missing git gzip
cd "$project"
git rev-parse --quiet --verify "$tag^{commit}" >/dev/null || die "there is no tag v$version"
names CMakeLists.txt "project(netlink_route VERSION $version "
names debian/changelog "netlink-route ($version) "
names CHANGELOG.md "## $version"
mkdir -p "$folder"
git archive --format=tar --prefix="netlink_route-$version/" "$tag" | gzip -n9 >"$folder/$archive"
cd "$folder"
sha256sum "$archive" | tee "$archive.sha256"
say "made $folder/$archive"

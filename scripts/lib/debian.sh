# shellcheck shell=bash
# A small Debian of its own in build/debian, for checks that install packages. Sourced behind common.sh, never run.
# Others of these scripts set and use its variables.
# shellcheck disable=SC2154,SC2034

packages=$root/build/packages
debian=$root/build/debian
arch=$(dpkg --print-architecture)
# The dependencies of the packages, and the programs of the checks.
included=libcjson1,libcoap3,libedit2,libmosquitto1,libsqlite3-0,libssl3,libstdc++6,libtesseract5,liblept5,libexif12,libwebsockets17
included+=,tesseract-ocr-eng,g++,cmake,ninja-build,pkg-config,python3,systemd
ours='python3-lumora lumora-doc lumora-hub lumora-tools lumora-examples liblumora-cpp-dev liblumora-cpp lumora-platform vendor-platform'

# inside COMMAND...: in that Debian, with no network but the loopback interface.
# shellcheck disable=SC2016 # the inner shell expands it
inside() {
    unshare --net --mount --pid --fork bash -euc '
        ip link set lo up
        mount -t proc proc "$1/proc"
        exec chroot "$@"' _ "$debian" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 "$@"
}

# shellcheck disable=SC2016 # apt-get expands it
make_debian() {
    local site codename
    site=$(apt-get indextargets --format '$(SITE) $(CODENAME)' "Identifier: Packages" | sort -u |
        grep -v -e security -e updates -e backports | head -n 1)
    read -r site codename <<<"$site"
    say "Debian $codename in $debian"
    rm -rf "$debian"
    debootstrap --variant=minbase --include="$included" "$codename" "$debian" "$site" >"$debian.log" 2>&1 ||
        die "see $debian.log"
    echo "$included" >"$debian/included"
}

# prepare_debian RENEW: makes the packages and that Debian, unless they are there. RENEW is true for a new Debian.
prepare_debian() {
    [ "$(id -u)" -eq 0 ] || die "only root may install"
    "$root/scripts/setup" --check-packages
    need debootstrap unshare ip dpkg-deb
    { compgen -G "$packages/*_$arch.deb" && compgen -G "$packages/*_all.deb"; } >/dev/null || "$root/scripts/package"
    if $1 || [ "$(cat "$debian/included" 2>/dev/null)" != "$included" ]; then
        make_debian
    fi
}

install_packages() {
    # shellcheck disable=SC2086 # one word for each package
    inside dpkg --purge $ours 2>/dev/null || true
    rm -f "$debian"/tmp/*.deb
    cp "$packages"/*_"$arch".deb "$packages"/*_all.deb "$debian/tmp"
    inside sh -c 'dpkg -i /tmp/*.deb'
}

#!/usr/bin/env bash
# Tries the packages as a technician gets them, in a bare Debian tree: installs an older version,
# starts the program as an ordinary user on a screen of its own, burns simulated devices, upgrades,
# removes and purges. For root, before each release; takes the packages of build/package, or builds
# them. Works in build/try, where the last picture of the screen stays (screen.xwd).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh try
compgen -G 'build/package/*.deb' >/dev/null || scripts/package.sh
tree=$PWD/build/try/tree

clean_up() {
    for place in proc dev/pts dev/shm dev; do
        umount "$tree/$place" 2>/dev/null || true
    done
}
trap clean_up EXIT
clean_up
rm -rf --one-file-system build/try
mkdir -p build/try

# As this machine gets its packages, so does the tree.
. /etc/os-release
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Suite: $VERSION_CODENAME" | head -n 1)
debootstrap --variant=minbase "$VERSION_CODENAME" "$tree" "$mirror" >build/try/debootstrap.log
rm -rf "$tree"/etc/apt/sources.list*
cp -R /etc/apt/sources.list* /etc/apt/apt.conf.d "$tree/etc/apt/"
cp /etc/resolv.conf /etc/hosts "$tree/etc/"
mount -t proc proc "$tree/proc"
mount --bind /dev "$tree/dev"
mount -t devpts devpts "$tree/dev/pts"
mount -t tmpfs tmpfs "$tree/dev/shm"

# The same packages as if they were of an older version.
mkdir -p "$tree/root/old" "$tree/root/new"
for package in build/package/*.deb; do
    [[ $package != *-dbgsym_* ]] || continue
    cp "$package" "$tree/root/new/"
    dpkg-deb -R "$package" build/try/older
    sed -i 's/1\.0\.0\.[0-9]*/1.0.0.1/g' build/try/older/DEBIAN/control
    dpkg-deb --root-owner-group -b build/try/older "$tree/root/old/" >/dev/null
    rm -rf build/try/older
done

cat >"$tree/root/try" <<'END'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
cd /root
fail() { echo "FAILED: $*"; exit 1; }
must_be() { [ -e "$1" ] || fail "$1 is missing $2"; }
must_not_be() { [ ! -e "$1" ] || fail "$1 is there $2"; }

station=/home/worker/.local/share/vorlanfactorytool
maker=/var/lib/vorlanfactorytool
# As the desktop entry does it.
start() {
    rm -rf "$station/log/run.log" /tmp/screen
    mkdir /tmp/screen
    Xvfb :9 -screen 0 1280x800x24 -fbdir /tmp/screen >/dev/null 2>&1 &
    local screen=$!
    until [ -S /tmp/.X11-unix/X9 ]; do sleep 0.1; done
    command=$(sed -n 's/^Exec=//p' /usr/share/applications/vorlanfactorytool.desktop | head -n 1)
    runuser -u worker -- env -C / HOME=/home/worker DISPLAY=:9 "$command" \
        >/tmp/program.log 2>&1 &
    for ((i = 0; i < 300; ++i)); do
        [ ! -e "$station/log/run.log" ] || break
        sleep 0.1
    done
    must_be "$station/log/run.log" "after the $1 start: $(cat /tmp/program.log)"
    sleep 1 # for the picture alone
    cp /tmp/screen/Xvfb_screen0 /root/screen.xwd
    pkill -x vorlanfactoryto || fail "the program has ended by itself: $(cat /tmp/program.log)"
    kill "$screen"
    wait
}

apt-get update -qq
apt-get install -y -qq --no-install-recommends ./old/*.deb xvfb procps >/dev/null
useradd -m worker
must_be /usr/lib/udev/rules.d/70-vorlanfactorytool-usb.rules "where it is in force"
must_be /usr/lib/udev/rules.d/70-vorlanfactorytool-uart.rules "where it is in force"
echo proxy >"$maker/ramloader/flash_proxy.img"
start first
[ "$(cat "$station/ramloader/flash_proxy.img")" = proxy ] || fail "the maker's file is out of reach"
must_be "$station/drivers/InstallDriver" "within reach"
echo "installed and started"

runuser -u worker -- env -C / HOME=/home/worker vorlanfactorytool-demo --headless |
    tee /tmp/demo.log | tail -n 3
grep -q '^PASSED' /tmp/demo.log || fail "the demo"

echo own >"$station/images/own.img"
echo 'VRL1,1' >"$station/numbers.csv"
cp "$station/log/run.log" /tmp/run.log
before=$(dpkg-query -W -f '${Version}' vorlanfactorytool)
apt-get install -y -qq --no-install-recommends ./new/*.deb >/dev/null
[ "$(dpkg-query -W -f '${Version}' vorlanfactorytool)" != "$before" ] || fail "no upgrade"
start second
[ "$(cat "$station/images/own.img" "$station/numbers.csv")" = "$(printf 'own\nVRL1,1')" ] ||
    fail "the station's files are not what they were"
echo "upgraded from $before and started"

apt-get remove -y -qq vorlanfactorytool >/dev/null
for gone in /usr/bin/vorlanfactorytool /usr/lib/vorlanfactorytool \
    /usr/lib/udev/rules.d/70-vorlanfactorytool-usb.rules /usr/bin/vorlanfactorytool-demo; do
    must_not_be "$gone" "after the removal"
done
must_be "$station/numbers.csv" "after the removal"
# Of packages without settings nothing may be left by now; apt would not know them any more.
dpkg --purge vorlanfactorytool vorlanfactorytool-demo >/dev/null 2>&1
must_be "$maker/ramloader/flash_proxy.img" "after the purge, and it is not ours"
must_not_be "$maker/images" "after the purge"
must_be "$station/numbers.csv" "after the purge"
left=$(find / -xdev -path /proc -prune -o -path /home -prune -o -path /root -prune -o \
    -path "$maker" -prune -o -path /tmp -prune -o -name '*vorlanfactorytool*' -print)
[ -z "$left" ] || fail "left after the purge: $left"
echo "removed and purged"
END
chroot "$tree" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin bash /root/try
cp "$tree/root/screen.xwd" build/try/
clean_up
rm -rf --one-file-system "$tree"

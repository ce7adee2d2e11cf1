#!/bin/sh
# station_test.sh LAUNCHER: the launcher, with a program and a show-notice of the test's own beside
# it, in homes of every kind. Nothing outside a temporary directory is written.
set -eu

work=$(mktemp -d)
chmod 755 "$work"
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
failed=0

# Counts a case as failed unless the two texts are the same.
same() {
    [ "$2" = "$3" ] && return
    printf 'FAILED: %s\n  expected: %s\n  got:      %s\n' "$1" "$2" "$3"
    failed=1
}

prefix="$work/a prefix"
mkdir -p "$prefix/bin" "$prefix/lib/vorlanfactorytool/drivers" "$work/bin" "$work/maker/ramloader" \
    "$work/maker/images"
cp "$1" "$prefix/bin/"
drivers=$prefix/lib/vorlanfactorytool/drivers
cat >"$prefix/bin/vorlanfactorytool" <<'END'
#!/bin/sh
echo "runs in $(pwd): $(cat ramloader/flash_proxy.img) $(cat images/burner.img) $(ls drivers)"
exit 7
END
cat >"$drivers/show-notice" <<'END'
#!/bin/sh
printf '%s\n' "$@" >>"$SHOWN"
END
cat >"$work/bin/xdg-open" <<'END'
#!/bin/sh
echo "$*" >>"$SHOWN"
END
chmod +x "$prefix/bin/vorlanfactorytool" "$drivers/show-notice" "$work/bin/xdg-open"
echo proxy >"$work/maker/ramloader/flash_proxy.img"
echo burner >"$work/maker/images/burner.img"
SHOWN=$work/shown
DISPLAY=:test
HOME=$work/home
VORLANFACTORYTOOL_MAKER_FILES=$work/maker
PATH=$work/bin:$PATH
export SHOWN DISPLAY HOME VORLANFACTORYTOOL_MAKER_FILES PATH
unset WAYLAND_DISPLAY XDG_DATA_HOME
mkdir "$HOME"

# Runs the launcher and tells "STATUS: what it said".
run() {
    : >"$SHOWN"
    chmod 666 "$SHOWN"
    status=0
    said=$("$@" 2>&1) || status=$?
    printf '%s: %s' "$status" "$said"
}
launch() { run "$prefix/bin/vorlanfactorytool-station" "$@"; }
# File permissions do not bind root.
launch_bound() {
    if [ "$(id -u)" -eq 0 ]; then
        run setpriv --reuid 65534 --regid 65534 --clear-groups \
            "$prefix/bin/vorlanfactorytool-station"
    else
        launch
    fi
}
shows() {
    same "$1 on the screen" "$2
$3" "$(head -n 2 "$SHOWN")"
}

station=$HOME/.local/share/vorlanfactorytool
same "the first start" "7: runs in $station: proxy burner show-notice" "$(launch)"
same "nothing to tell" "" "$(cat "$SHOWN")"
same "what is there" "drivers
images
ramloader" "$(ls -A "$station")"
same "the path" "0: $station" "$(launch --print)"
same "opened" "0: " "$(launch --open)"
same "what was opened" "$station" "$(cat "$SHOWN")"
same "a wrong argument" "2: usage: vorlanfactorytool-station [--open | --print]" "$(launch --now)"

# The operator's own files stay, in whatever way he has put them there.
rm "$station/ramloader/flash_proxy.img" "$station/images/burner.img"
echo own >"$station/ramloader/flash_proxy.img"
echo linked >"$work/linked.img"
ln -s "$work/linked.img" "$station/images/burner.img"
touch "$station/numbers.csv"
same "own files" "7: runs in $station: own linked show-notice" "$(launch)"
same "the maker's" "proxy burner" \
    "$(cat "$work/maker/ramloader/flash_proxy.img") $(cat "$work/maker/images/burner.img")"
[ -e "$station/numbers.csv" ] || same "numbers" "there" "gone"
# Links that lead nowhere any more are made anew.
rm -r "$work/linked.img" "$station/drivers"
ln -s /nowhere "$station/drivers"
same "stale links" "7: runs in $station: own burner show-notice" "$(launch)"
rm -r "$station"
same "a directory that was deleted" "7: runs in $station: proxy burner show-notice" "$(launch)"

XDG_DATA_HOME="$work/data of 张三"
export XDG_DATA_HOME
same "another place" "7: runs in $XDG_DATA_HOME/vorlanfactorytool: proxy burner show-notice" \
    "$(launch)"
XDG_DATA_HOME=relative
same "a relative place is none" "0: $station" "$(launch --print)"
same "no home" "1: vorlanfactorytool-station: no home directory" "$(HOME='' launch)"
same "no home on the screen" "找不到当前用户的主目录，无法启动。" "$(cat "$SHOWN")"

# A full disk.
case $(trap '' XFSZ; ulimit -f 100; launch) in
    "1: vorlanfactorytool-station: $station: "*) ;;
    *) same "full" "a failure" "something else" ;;
esac
shows "full" "工作目录无法写入，程序没有启动：" "$station"
rm -f "$station/.trial"
# A home that cannot be written, with and without its station, and somebody else's.
chmod -R a-w "$HOME"
case $(launch_bound) in
    "1: vorlanfactorytool-station: $station: "*) ;;
    *) same "read-only" "a failure" "something else" ;;
esac
shows "read-only" "工作目录无法写入，程序没有启动：" "$station"
mkdir -m 755 "$work/empty"
chmod 555 "$work/empty"
case $(HOME=$work/empty launch_bound) in
    "1: vorlanfactorytool-station: $work/empty/.local/share/vorlanfactorytool: "*) ;;
    *) same "read-only and empty" "a failure" "something else" ;;
esac
shows "read-only and empty" "无法建立工作目录：" "$work/empty/.local/share/vorlanfactorytool"
chmod 700 "$HOME"
chmod 000 "$HOME"
case $(launch_bound) in
    "1: vorlanfactorytool-station: $station: "*) ;;
    *) same "somebody else's" "a failure" "something else" ;;
esac
shows "somebody else's" "无法建立工作目录：" "$station"
: >"$SHOWN"
(unset DISPLAY && launch_bound >/dev/null)
same "nowhere to show it" "" "$(cat "$SHOWN")"
exit "$failed"

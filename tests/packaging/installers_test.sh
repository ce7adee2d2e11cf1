#!/bin/sh
# installers_test.sh DRIVERS: the driver installers of that directory, with a pkexec, a udevadm and a
# show-notice of the test's own in the place of the true ones. Nothing outside a temporary directory
# is written.
set -eu

work=$(mktemp -d)
cp -R "$1" "$work/drivers"
drivers=$work/drivers
trap 'rm -rf "$work"' EXIT
failed=0

# Counts a case as failed unless the two texts are the same.
same() {
    [ "$2" = "$3" ] && return
    printf 'FAILED: %s\n  expected: %s\n  got:      %s\n' "$1" "$2" "$3"
    failed=1
}

mkdir "$work/bin"
# Stands for the administrator: does what it is asked to, but in the test's directory.
cat >"$work/bin/pkexec" <<'END'
#!/bin/sh
set -eu
[ "${REFUSAL:-0}" -eq 0 ] || exit "$REFUSAL"
[ "$5" = /etc/udev/rules.d ] || exit 99
cd /
shell=$1 script=$3 name=$4
shift 5
exec "$shell" -c "$script" "$name" "$RULES" "$@"
END
cat >"$work/bin/udevadm" <<'END'
#!/bin/sh
echo "$*" >>"$CALLS"
exit "${UDEV_STATUS:-0}"
END
[ -x "$drivers/show-notice" ] || { echo "FAILED: no show-notice beside the installers" && failed=1; }
cat >"$drivers/show-notice" <<'END'
#!/bin/sh
printf '%s\n' "$@" >>"$SHOWN"
END
chmod +x "$work/bin/pkexec" "$work/bin/udevadm" "$drivers/show-notice"

RULES=$work/etc/rules.d
CALLS=$work/calls
SHOWN=$work/shown
DISPLAY=:test
export RULES CALLS SHOWN DISPLAY
unset WAYLAND_DISPLAY
umask 077 # the rule has to be readable for udev all the same

# Runs an installer by its path and tells "STATUS: what it said".
run() {
    : >"$CALLS"
    : >"$SHOWN"
    status=0
    said=$(PATH="$work/bin:$PATH" "$@" 2>&1) || status=$?
    printf '%s: %s' "$status" "$said"
}
installed() {
    (cd "$RULES" && find . -type f -printf '%P %m\n' | sort)
}
usb=70-vorlanfactorytool-usb.rules
uart=70-vorlanfactorytool-uart.rules

same "USB" "0: " "$(run "$drivers/InstallDriver")"
same "USB rule alone" "$usb 644" "$(installed)"
cmp "$drivers/$usb" "$RULES/$usb" || failed=1
same "udev takes it in" "control --reload
trigger --action=change --subsystem-match=usb" "$(cat "$CALLS")"

same "UART" "0: " "$(run "$drivers/InstallUartDriver")"
same "both rules" "$uart 644
$usb 644" "$(installed)"
cmp "$drivers/$uart" "$RULES/$uart" || failed=1
same "udev takes the second in" "control --reload
trigger --action=change --subsystem-match=tty" "$(cat "$CALLS")"

# Again, over an outdated rule and from places with odd names; the caller's directory is free too.
odd="$work/-n \$(touch x) 'a' \"b\"; 中
文"
cp -R "$drivers" "$odd"
echo outdated >"$RULES/$usb"
same "odd path" "0: " "$(run "$odd/InstallDriver")"
cmp "$drivers/$usb" "$RULES/$usb" || failed=1
echo outdated >"$RULES/$usb"
same "relative path" "0: " "$(cd "$odd" && run ./InstallDriver)"
same "no path" "0: " "$(cd "$odd" && run sh InstallDriver)"
cmp "$drivers/$usb" "$RULES/$usb" || failed=1
same "no left-overs" "$uart 644
$usb 644" "$(installed)"

same "nothing to tell" "" "$(cat "$SHOWN")"

# And away again, also where there is none.
for time in first second; do
    same "removed the $time time" "0: " "$(run "$odd/InstallDriver" --remove)"
    same "the other stays" "$uart 644" "$(installed)"
    same "udev hears of it" "control --reload
trigger --action=change --subsystem-match=usb" "$(cat "$CALLS")"
done
same "a wrong argument" "2: usage: InstallDriver [--remove], InstallUartDriver [--remove]" \
    "$(run "$odd/InstallDriver" --now)"
same "USB again" "0: " "$(run "$odd/InstallDriver")"

# What goes wrong is told, on the screen too, and nothing is half done.
rm "$RULES/$usb"
# The window begins with that text and goes on with commands that do what the installer could not.
as_root="请系统管理员在终端中以root身份运行："
shows() {
    same "$1 on the screen" "$2" "$(head -n 1 "$SHOWN")"
    grep -q "$as_root" "$SHOWN" || same "$1, with commands" "$as_root" "$(cat "$SHOWN")"
    sed "1,/$as_root/d; s#/etc/udev/rules.d#$RULES#" "$SHOWN" >"$work/commands"
    : >"$CALLS"
    PATH="$work/bin:$PATH" sh -e "$work/commands" || same "$1, commands" "run" "fail"
    cmp "$3" "$RULES/${3##*/}" || failed=1
    same "$1, udev takes it in" "control --reload
trigger --action=change --subsystem-match=$4" "$(cat "$CALLS")"
    rm -f "$RULES/$usb"
}
REFUSAL=126
export REFUSAL
same "refused by the user" \
    "126: $usb: not installed: the administrator's password was not given" \
    "$(run "$drivers/InstallDriver")"
shows "refused by the user" "驱动未安装：没有输入管理员密码。" "$drivers/$usb" usb
REFUSAL=127
same "refused by the system" "127: $usb: not installed: pkexec refused" \
    "$(run "$odd/InstallDriver")"
shows "refused by the system" "驱动未安装：系统没有给予管理员权限。" "$odd/$usb" usb
same "removal refused" "127: $usb: not removed: pkexec refused" \
    "$(run "$odd/InstallDriver" --remove)"
same "removal refused on the screen" "驱动未移除：系统没有给予管理员权限。" "$(head -n 1 "$SHOWN")"
same "removal by hand" "rm -f /etc/udev/rules.d/$usb" "$(grep "^rm" "$SHOWN")"
same "UART refused" "127: $uart: not installed: pkexec refused" \
    "$(cd "$drivers" && run ./InstallUartDriver)"
shows "UART refused" "驱动未安装：系统没有给予管理员权限。" "$drivers/$uart" tty
same "refused without a screen" "127: $usb: not installed: pkexec refused" \
    "$(unset DISPLAY && run "$drivers/InstallDriver")"
same "nowhere to show it" "" "$(cat "$SHOWN")"
REFUSAL=0
mv "$RULES" "$RULES.away"
: >"$RULES"
case $(run "$drivers/InstallDriver") in
    "1: "*"$usb: not installed") ;;
    *) same "no directory of rules" "a failure" "something else" ;;
esac
rm "$RULES"
mv "$RULES.away" "$RULES"
same "nothing installed by failures" "$uart 644" "$(installed)"
shows "no directory of rules" "驱动未安装：无法写入/etc/udev/rules.d。" "$drivers/$usb" usb

UDEV_STATUS=1
export UDEV_STATUS
same "udev does not run" \
    "2: $usb: installed, but udev did not take it in; start the machine again" \
    "$(run "$drivers/InstallDriver")"
same "udev does not run, on the screen" "驱动已安装，重新启动电脑后生效。" "$(cat "$SHOWN")"
same "the rule is there" "$uart 644
$usb 644" "$(installed)"
UDEV_STATUS=0

rm "$odd/$uart"
same "no rule" "1: $uart: the rule is missing beside the installer" \
    "$(run "$odd/InstallUartDriver")"
same "no rule, on the screen" "驱动未安装：缺少文件$uart，请重新安装本软件。" "$(cat "$SHOWN")"

mkdir "$work/poor"
for tool in cat sed; do
    ln -s "$(command -v "$tool")" "$work/poor/$tool"
done
same "no pkexec" "127: $usb: pkexec is missing; install it to install drivers" \
    "$(run env PATH="$work/poor" "$drivers/InstallDriver")"
shows "no pkexec" "驱动未安装：本机缺少pkexec。" "$drivers/$usb" usb
exit "$failed"

#!/bin/sh
# installers_test.sh DRIVERS: the driver installers of that directory, with a pkexec and a udevadm of
# the test's own in the place of the machine's. Nothing outside a temporary directory is written.
set -eu

drivers=$1
work=$(mktemp -d)
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
chmod +x "$work/bin/pkexec" "$work/bin/udevadm"

RULES=$work/etc/rules.d
CALLS=$work/calls
export RULES CALLS
umask 077 # the rule has to be readable for udev all the same

# Runs an installer by its path and tells "STATUS: what it said".
run() {
    : >"$CALLS"
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

# What goes wrong is told, and nothing is half done.
rm "$RULES/$usb"
REFUSAL=126
export REFUSAL
same "refused by the user" \
    "126: $usb: not installed: the administrator's password was not given" \
    "$(run "$drivers/InstallDriver")"
REFUSAL=127
same "refused by the system" "127: $usb: not installed: pkexec refused" \
    "$(run "$drivers/InstallDriver")"
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

UDEV_STATUS=1
export UDEV_STATUS
same "udev does not run" \
    "2: $usb: installed, but udev did not take it in; start the machine again" \
    "$(run "$drivers/InstallDriver")"
same "the rule is there" "$uart 644
$usb 644" "$(installed)"
UDEV_STATUS=0

rm "$odd/$uart"
same "no rule" "1: $uart: the rule is missing beside the installer" \
    "$(run "$odd/InstallUartDriver")"
mv "$work/bin/pkexec" "$work/pkexec"
if ! command -v pkexec >/dev/null; then
    same "no pkexec" "127: $usb: pkexec is missing; install it to install drivers" \
        "$(run "$drivers/InstallDriver")"
fi
exit "$failed"

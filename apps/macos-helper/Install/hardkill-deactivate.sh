#!/bin/sh
# Lifts an ORVEN Hard Kill without the Helper: run it as root when the Helper
# cannot (removed, broken, not answering). It empties the blackout anchor,
# gives back every pf reference the Helper recorded, and removes the files
# that would make the Helper put the blackout back at its next start.
# Running it again does no harm.
#
#   sudo sh hardkill-deactivate.sh
#
# ORVEN_ROOT (default empty) is put in front of every path and tool, so the
# script can run against a copy of a Mac's file system.

set -u

root=${ORVEN_ROOT:-}
pfctl="$root/sbin/pfctl"
anchor="com.apple/999.test.orven.app"
state="$root/Library/Application Support/test.orven.app"
marker="$state/hardkill.engaged"
owner="$state/hardkill.owner"
primary="$state/hardkill.pf-token"
emergency="$root/var/run/test.orven.app.hardkill.pf-token"

failures=0
say() { printf 'hardkill-deactivate: %s\n' "$*"; }
fail() {
	say "$*" >&2
	failures=$((failures + 1))
}

if [ -z "$root" ] && [ "$(id -u)" -ne 0 ]; then
	say "must be run as root (sudo sh $0)" >&2
	exit 1
fi
if [ ! -x "$pfctl" ]; then
	say "$pfctl is missing" >&2
	exit 1
fi

# 1. The cut itself: the blackout rules live in our anchor only.
if output=$("$pfctl" -a "$anchor" -F rules 2>&1); then
	say "emptied the blackout anchor $anchor"
else
	fail "could not empty the blackout anchor $anchor: $output"
fi
if rules=$("$pfctl" -a "$anchor" -sr 2>/dev/null); then
	if [ -n "$rules" ]; then
		fail "rules are still loaded in $anchor:"
		printf '%s\n' "$rules" >&2
	else
		say "no blackout rules remain in $anchor"
	fi
else
	fail "could not read back $anchor to confirm it is empty"
fi

# 2. The references that keep pf switched on for us. A token pf no longer
# knows (given back already, or from before a restart) is gone as well; any
# other failure keeps the token on disk so nothing is forgotten.
released=" "
release_file() {
	file=$1
	if [ ! -e "$file" ]; then
		say "no pf references recorded in $file"
		return
	fi
	kept=""
	while IFS= read -r line || [ -n "$line" ]; do
		token=$(printf '%s' "$line" | sed -e 's/^[ 	]*//' -e 's/[ 	]*$//')
		[ -n "$token" ] || continue
		case "$released" in
		*" $token "*)
			continue
			;;
		esac
		if output=$("$pfctl" -X "$token" 2>&1 </dev/null); then
			say "gave back pf reference $token ($output)"
			released="$released$token "
		else
			case "$output" in
			*"token invalid"* | *"pf not enabled"*)
				say "pf reference $token was no longer held ($output)"
				released="$released$token "
				;;
			*)
				fail "could not give back pf reference $token: $output — kept in $file"
				kept="$kept$token
"
				;;
			esac
		fi
	done <"$file"
	if [ -n "$kept" ]; then
		if printf '%s' "$kept" >"$file.new" && chmod 600 "$file.new" && mv -f "$file.new" "$file"; then
			say "kept the references not given back in $file"
		else
			fail "could not rewrite $file"
		fi
	elif rm -f "$file"; then
		say "removed $file"
	else
		fail "could not remove $file"
	fi
}
release_file "$primary"
release_file "$emergency"

# 3. Without these the Helper would re-apply the blackout at its next start.
for file in "$marker" "$owner"; do
	if [ ! -e "$file" ]; then
		say "$file is already gone"
	elif rm -f "$file"; then
		say "removed $file"
	else
		fail "could not remove $file"
	fi
done

if [ "$failures" -ne 0 ]; then
	say "finished with $failures problem(s) — see above"
	exit 1
fi
say "done: no blackout rules, no pf reference of ours, no Hard Kill state left"
exit 0

#!/bin/sh
# The service script among recording stand-ins of the firmware's functions, of its bus and of its settings.
# Usage: service_test.sh SERVICE_SCRIPT
set -u

failures=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# expect WHAT: compares what was recorded with standard input, and records anew.
expect() {
	cat >"$scratch/expected"
	touch "$scratch/calls"
	if ! diff -u "$scratch/expected" "$scratch/calls"; then
		echo "FAILED: $1"
		failures=$((failures + 1))
	fi
	rm "$scratch/calls"
}

record() {
	echo "$*" >>"$scratch/calls"
}

for function in procd_open_instance procd_close_instance procd_set_param procd_add_reload_trigger; do
	eval "$function() { record $function \"\$@\"; }"
done

present=1 # the object on the bus
masked=0
ubus() {
	case " $* " in
	*' list ptzd ') [ "$present" = 1 ] ;;
	*' wait_for ptzd ')
		record "wait_for $2"
		[ "$present" = 1 ]
		;;
	*' call ptzd '*)
		for method; do :; done
		record "$method"
		case $method$masked in
		lensMask1) echo '{"err_code":-64324}' ;;
		lensMask2)
			echo 'Command failed: Request timed out' >&2
			return 7
			;;
		lensMask? | reloadTargetTrackConfig?) echo '{"err_code":0}' ;;
		updateImageConfig2) echo '{"error_code":-64301}' ;;
		*) echo '{"error_code":0}' ;;
		esac
		;;
	*) record "unexpected: ubus $*" ;;
	esac
}

uci() {
	case "$*" in
	'-q show tour') cat "$scratch/tour" ;;
	*) record "unexpected: uci $*" ;;
	esac
}
echo "tour.tour_info.enabled='off'" >"$scratch/tour"

# shellcheck disable=SC1090
. "$1"
TOUR_READ=$scratch/tour_read
READ='updateImageConfig
reloadPresetConfig
reloadTargetTrackConfig
lensMask'

present=0
start_service
service_started || record "a start without a driver fails"
expect "a start" <<'END'
procd_open_instance
procd_set_param command /usr/bin/ptzd
procd_set_param respawn 3600 5 0
procd_set_param term_timeout 5
procd_set_param stderr 1
procd_close_instance
wait_for 5
END

reload_service
expect "a reload without a daemon calls nothing" </dev/null

present=1
service_triggers
expect "all packages that the daemon reads" <<'END'
procd_add_reload_trigger ptzd image diagd lens_mask target_track ptz_plan tour
END

reload_service 2>"$scratch/errors"
masked=1
reload_service 2>>"$scratch/errors"
expect "a tour whose settings are as they were goes on" <<END
$READ
$READ
END

echo "tour.tour_info.enabled='on'" >"$scratch/tour"
start_service
expect "a start of what runs" <<'END'
procd_open_instance
procd_set_param command /usr/bin/ptzd
procd_set_param respawn 3600 5 0
procd_set_param term_timeout 5
procd_set_param stderr 1
procd_close_instance
END
reload_service 2>>"$scratch/errors"
reload_service 2>>"$scratch/errors"
expect "a changed tour is read once" <<END
$READ
reload_tour_info
reload_scan_tour
$READ
END
cat "$scratch/errors" >"$scratch/calls"
expect "nothing is reported so far" </dev/null

masked=2
reload_service 2>"$scratch/errors"
cat "$scratch/errors" >>"$scratch/calls"
expect "what fails is reported, and the rest is called" <<END
$READ
ptzd: updateImageConfig: {"error_code":-64301}
ptzd: lensMask: no answer Command failed: Request timed out
END

exit $((failures > 0))

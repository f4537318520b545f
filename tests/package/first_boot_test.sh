#!/bin/sh
# The first-boot script on several cameras' settings, with the uci command of the build.
# Usage: first_boot_test.sh SCRIPT DEFAULTS UCI
set -u

script=$1 defaults=$2 uci_program=$3
failures=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/config" "$scratch/config/.changes" "$scratch/init.d"
printf '#!/bin/sh\necho "rpcd $*" >>"%s/calls"\n' "$scratch" >"$scratch/init.d/rpcd"
chmod 755 "$scratch/init.d/rpcd"
sed "s|/usr/share/ptzd/config|$defaults|; s|/etc/|$scratch/|g" "$script" >"$scratch/script"

uci() {
	case $1 in
	-c) "$uci_program" "$@" ;;
	*) "$uci_program" -c "$scratch/config" -t "$scratch/config/.changes" "$@" ;;
	esac
}

boot() {
	# shellcheck disable=SC1091
	(cd "$scratch" && . ./script) || fail "exit status $? at the $1"
}

fail() {
	echo "FAILED: $*"
	failures=$((failures + 1))
}

# expect WHAT: compares all settings with standard input.
expect() {
	cat >"$scratch/expected"
	uci show >"$scratch/shown"
	diff -u "$scratch/expected" "$scratch/shown" || fail "$1"
}

# Nothing is there: the defaults, in files of their own, and no users, since there is nobody to log in to.
boot 'first boot'
"$uci_program" -c "$defaults" show | expect 'nothing was there'
[ ! -e "$scratch/calls" ] || fail 'reloads what is not installed'

# A used camera of an earlier version: settings changed, some not known then, one deleted, a user renamed by hand.
rm "$scratch"/config/[a-z]*
cat >"$scratch/config/ptzd" <<'END'
config ptzd 'config'
	option power_off_recover '0'

config motor 'x_motor'
	option steps '1800'

config preset 'preset_1'
	option name 'it'\''s'
END
cat >"$scratch/config/tour" <<'END'
config tour 'tour_info'
	option tour_type '2'
END
cat >"$scratch/config/rpcd" <<'END'
config login
	option username 'root'
	option password '$p$root'
	list read '*'

config login 'ptzd_operator'
	option username 'anna'
	option password '$6$a$b'
	list read 'ptzd-view'
END
cp "$defaults/image" "$defaults/diagd" "$scratch/config"
sed -i "s/'0'/'1'/" "$scratch/config/diagd"
boot 'boot after an upgrade'
expect 'a used camera' <<'END'
diagd.factory_mode=factory_mode
diagd.factory_mode.enabled='1'
image.switch=switch
image.switch.flip_type='off'
lens_mask.lens_mask_info=lens_mask
lens_mask.lens_mask_info.enabled='off'
ptzd.config=ptzd
ptzd.config.power_off_recover='0'
ptzd.x_motor=motor
ptzd.x_motor.steps='1800'
ptzd.preset_1=preset
ptzd.preset_1.name='it'\''s'
ptzd.y_motor=motor
ptzd.preset_config=preset_config
ptzd.preset_config.speed='1.000000'
ptzd.preset_config.image_freeze_enabled='0'
rpcd.@login[0]=login
rpcd.@login[0].username='root'
rpcd.@login[0].password='$p$root'
rpcd.@login[0].read='*'
rpcd.ptzd_operator=login
rpcd.ptzd_operator.username='anna'
rpcd.ptzd_operator.password='$6$a$b'
rpcd.ptzd_operator.read='ptzd-view'
rpcd.ptzd_viewer=login
rpcd.ptzd_viewer.username='viewer'
rpcd.ptzd_viewer.read='ptzd-view'
rpcd.ptzd_installer=login
rpcd.ptzd_installer.username='installer'
rpcd.ptzd_installer.read='ptzd-view' 'ptzd-operate' 'ptzd-install'
rpcd.ptzd_installer.write='ptzd-operate' 'ptzd-install'
target_track.target_track_info=target_track
target_track.target_track_info.enabled='off'
tour.tour_info=tour
tour.tour_info.tour_type='2'
tour.tour_info.enabled='off'
tour.scan_tour=scan_tour
tour.scan_tour.x_coord_start='-100'
tour.scan_tour.x_coord_end='100'
tour.scan_tour.start_time='0'
tour.scan_tour.end_time='0'
END

[ -z "$(uci changes)" ] || fail 'not all is committed'

# Again: no file is written anew, and what somebody has set and not committed yet stays like that.
uci set image.switch.flip_type=center
ls -il "$scratch/config" >"$scratch/before"
boot 'second run'
ls -il "$scratch/config" | diff "$scratch/before" - || fail 'the second run writes'
[ "$(uci changes)" = "image.switch.flip_type='center'" ] || fail "the second run commits another's change"
[ "$(cat "$scratch/calls")" = "$(printf 'rpcd reload\nrpcd reload')" ] || fail 'the session daemon reads no new groups'

exit $((failures > 0))

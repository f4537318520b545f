#!/usr/bin/env bash
# Runs ptzctl as its users do: run.sh PTZD-LAB PTZCTL SOURCES. Each row is an exit status, the output that is expected (a
# pattern of the shell, for both channels together), and the command's words. Prints what fails; status 1 if anything does.
set -uo pipefail

lab=$1
ctl=$2
sources=$3
failures=0
scratch=$(mktemp -d)
export PTZD_LAB_DIR=$scratch/lab
trap '"$lab" ptzd kill >/dev/null 2>&1; "$lab" down >/dev/null 2>&1; rm -rf "$scratch"' EXIT
mkdir "$scratch/bin"
ln -s "$ctl" "$scratch/bin/ptzctl"
printf '#!/bin/sh\nshift\nexec sh -c "$*"\n' >"$scratch/bin/ssh" # to this very host
chmod +x "$scratch/bin/ssh"
export PATH=$scratch/bin:$PATH
cd "$scratch" || exit 1

fail() {
    failures=$((failures + 1))
    printf 'FAILED %s\n' "$1" >&2
}

# in_lab COMMAND...: limited, since nothing may hang.
in_lab() {
    timeout -k 5 60 "$lab" exec -- "$@" </dev/null
}

check() {
    local status=$1 pattern=$2 output result
    shift 2
    output=$(in_lab "$ctl" "$@" 2>&1)
    result=$?
    # shellcheck disable=SC2053 # a pattern is meant
    [ $result -eq "$status" ] && [[ $output == $pattern ]] ||
        fail "ptzctl $*: status $result instead of $status, output \"$output\" instead of \"$pattern\""
}

# A command in the background, from rest, whose motion has begun; its end is judged by check_end, or it gets a signal.
begin() {
    in_lab "$ctl" stop
    until_seen 20 at_rest
    "$lab" exec -- "$ctl" "$@" >"$scratch/begun" 2>&1 </dev/null &
    begun=$!
    until_seen 20 moving || fail "$* moves nothing"
    sleep 0.3 # the reply is on its way
}

check_end() {
    local status=$1 pattern=$2 result=0
    wait $begun || result=$?
    # shellcheck disable=SC2053
    [ $result -eq "$status" ] && [[ $(cat "$scratch/begun") == $pattern ]] ||
        fail "in the background ($3): status $result instead of $status, output \"$(cat "$scratch/begun")\""
}

# until_seen SECONDS COMMAND...
until_seen() {
    local end=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.05
    done
}

moving() {
    [ "$(in_lab "$ctl" onvif is_moving)" = 1 ]
}

at_rest() {
    ! moving
}

# Each axis's steps per second for a unit of speed.
factor() {
    "$lab" motor x speed "$1" && "$lab" motor y speed "$1"
}

"$lab" up --factor 4000 >/dev/null || exit 1

# ---- wrong use: status 2, though there is no bus, so nothing can have been sent ----
while read -r words; do
    # shellcheck disable=SC2086 # words are meant
    check 2 'ptzctl: ?*' -s "$scratch/none" $words
done <<'END'

nothing
-x
--wait=0 home
--wait=x home
--wait status
--no-stop home
--json onvif get_position
-t 0 status
-t
status now
move 1
move 1 2 3
move 1 x
move 1.5 2
move 99999999999 0
goto -151 0
goto 0 62
goto 0 -40
goto 1 1x
step
step north
stop 1
home 1
calibrate now
speed 1
speed 1 2 3
preset
preset do
preset list 1
preset go
preset go 0
preset go 9
preset go 1 0
preset go 1 1.1
preset go 1 nan
preset set
preset set 9
preset set 1 123456789012345678901234567890123
preset delete
preset delete 1 9
preset delete all 1
tour
tour on week
plan set none
plan clear someday
panorama
track maybe
mask 1
flip upside
watch 1
onvif
onvif nothing
onvif move_preset 0
onvif remove_preset 9
onvif set_preset
onvif set_preset 9 x
onvif jump_to_abs 1
onvif jump_to_abs 301,0,0
onvif jump_to_abs 0,101,0
onvif jump_to_rel nan,0,0
onvif continuous_move x,y
onvif move_x
onvif get_position 1
1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31 32 33
END
while IFS='|' read -r line error; do
    printf '%b\n' "$line" >plan
    check 2 "ptzctl: plan:*$error*" -s "$scratch/none" plan set plan
done <<'END'
monday 8:00-12:00|DAY START-END PRESET
moonday 8:00-12:00 1|no weekday
monday 8:00-24:01 1|no span
monday 8:60-9:00 1|no span
monday 9:00-9:00 1|no span
monday 8:00-9:00x 1|no span
monday 8:00-9:00 9|neither a preset
monday 8:00-9:00 1 1|DAY START-END PRESET
tue 8:00-10:00 1\ntue 9:59-11:00 2|this entry overlaps
tue 8:00-10:00 1\ntue 7:00-8:01 2|overlaps
END
for hour in 0 1 2 3 4 5 6 7 8 9 10; do echo "fri $hour:00-$hour:30 1"; done >plan
check 2 '*plan:11: a day has at most 10 entries*' plan set plan
check 3 'ptzctl: there is no bus at*' -s "$scratch/none" status
check 0 'Usage: ptzctl *' --help

# ---- every command is in help, manual page, completion and page; so is every status ----
commands=$("$ctl" --help | sed -nE 's/^  ([a-z]+( (list|go|set|delete|on|off|show|clear|start|stop))?) .*/\1/p')
[ "$(echo "$commands" | wc -l)" -ge 25 ] || fail "help lists $(echo "$commands" | wc -l) commands"
while read -r first second; do
    grep -qE "(\.It|,) Cm $first${second:+ $second}" "$sources/ctl/ptzctl.1" || fail "ptzctl.1: $first $second"
    grep -qE "\b${second:-$first}\b" "$sources/ctl/ptzctl.bash" || fail "ptzctl.bash: $first $second"
    grep -qE "\`$first ?${second:-}" "$sources/docs/ptzctl.md" || fail "docs/ptzctl.md: $first $second"
done <<<"$commands"
while read -r status; do
    grep -q "^\.It $status$" "$sources/ctl/ptzctl.1" && grep -q "^| $status |" "$sources/docs/ptzctl.md" ||
        fail "status $status is not described"
done < <(sed -nE 's/^ +EXIT_.* = ([0-9]+),.*/\1/p' "$sources/ctl/exit_status.h" | grep -v 128)
completed() {
    bash -c 'source "$1"; COMP_WORDS=(ptzctl "${@:2}"); COMP_CWORD=$(($# - 1)); _ptzctl; echo "${COMPREPLY[*]}"' - \
        "$sources/ctl/ptzctl.bash" "$@"
}
[ "$(completed pre)" = preset ] && [ "$(completed --wait preset g)" = go ] && [ "$(completed -t 5 flip c)" = center ] &&
    [ "$(completed --js)" = --json ] && [[ "$(completed onvif move_)" == *move_stop* ]] || fail "completion"

# ---- the page's examples, in their order on a fresh head ----
command='' expected=''
play() {
    local output
    [ -n "$command" ] || return 0
    output=$(in_lab bash -c "$command" 2>&1)
    [ "$output" = "$expected" ] || fail "docs/ptzctl.md: $command: \"$output\" instead of \"$expected\""
}
while IFS= read -r line; do
    if [[ $line == '    $ '* ]]; then
        play
        command=${line#    \$ } expected=''
    elif [[ $line == '    '* ]] && [ -n "$command" ]; then
        expected+=${expected:+$'\n'}${line#    }
    else
        play
        command=''
    fi
done < <(sed '/^```/,/^```/d' "$sources/docs/ptzctl.md")
play
in_lab sh -c 'ptzctl preset go 1 --wait'
while IFS= read -r line; do
    output=$(in_lab sh -c "$line" 2>&1) || fail "Home Assistant: $line: $output"
done < <(sed -nE 's/^ +(command|camera)[a-z_]*: "(.*)"$/\2/p' "$sources/docs/ptzctl.md")

# ---- ONVIF: every command of both texts, as the servers would run them ----
onvif_lines() {
    sed -nE 's/^[a-z_]+=(ptzctl .*)$/\1/p; s/^ +"[a-z_]+": "(ptzctl .*)",?$/\1/p' "$sources/docs/onvif.md"
}
[ "$(onvif_lines | wc -l)" -eq 38 ] || fail "docs/onvif.md has $(onvif_lines | wc -l) commands"
in_lab ubus call ptzd getStatus "$(sed -n '/^```json/,/^```/{/^```/d;p}' "$sources/docs/onvif.md")" >/dev/null ||
    fail "docs/onvif.md: its JSON does not parse"
while IFS= read -r line; do
    check 0 '*' preset set 2 x --json # for those that go to it, or delete it
    line=${line//%f/20.000000} line=${line//%d/2}
    [[ $line == *move_stop* ]] && line=${line//%s/pantilt} || line=${line//%s/front door}
    output=$(in_lab sh -c "$line" 2>errors) || fail "docs/onvif.md: $line: $(cat errors)"
    case $line in
    *get_position) [[ $output =~ ^[0-9]+,[0-9]+$ ]] ;;
    *is_moving) [[ $output =~ ^[01]$ ]] ;;
    *get_presets) [[ $output =~ ^1=door,180,59 && $output =~ (^|$'\n')[2-3]=[^\ ]+,[0-9]+,[0-9]+ ]] ;;
    *) [ -z "$output" ] ;;
    esac || fail "docs/onvif.md: $line prints \"$output\""
    in_lab "$ctl" track off && in_lab "$ctl" tour off
    in_lab "$ctl" stop
    until_seen 20 at_rest
done < <(onvif_lines)
check 0 '' preset delete all
while IFS='|' read -r position action; do # from 100,50, then what get_position prints at rest
    in_lab "$ctl" goto -50 11 --wait
    # shellcheck disable=SC2086
    check 0 '' onvif $action
    until_seen 20 at_rest
    check 0 "$position" onvif get_position
done <<'END'
0,50|move_left 0.5
300,50|move_right 1
100,100|move_up
100,0|move_down
300,100|continuous_move 0.5,0.1
0,50|move_x -1
300,0|jump_to_abs 300.0,0.0,0.0
120,40|jump_to_rel 20.0,-10.0,0
150,39|goto_home_position
END
check 0 '' onvif set_preset -1 back door
check 0 $'*=back_door,*' onvif get_presets
check 0 '' onvif set_home_position
check 0 '*=home,*' onvif get_presets
check 0 '' preset delete all

# ---- the image upside down: signs and limits ----
check 0 '' flip up_and_down
check 0 '' goto 10 -61 --wait
check 0 '160,0' onvif get_position
check 2 '*-61 to 39*' goto 10 40
check 0 '' flip off
check 0 'off' flip

# ---- refusals ----
check 0 '' mask on --wait
check 7 'ptzctl: the lens mask is on:*' home
check 0 '' mask on --wait
check 0 '' mask off --wait
check 0 '' panorama start --wait
check 8 'ptzctl: a panorama runs:*' mask on
check 0 'off' mask # put back
check 8 '*panorama*' stop
check 0 '' panorama stop --wait
check 9 '*no such preset*' preset go 3
check 9 '*"error_code":-64321*no such preset*' preset go 3 --json
check 2 'ptzctl: PAN is a whole number from 1 to 8*' speed 9 9
check 0 '' speed 4 4
check 0 'pan * 4 of 8'*'4 of 8' speed
check 0 '' goto 150 0 --wait
check 11 '*end of its travel*' move 5 0
"$lab" motor x fail MOVE
check 10 'ptzctl: a motor failed*' goto 0 0

# ---- waiting ----
in_lab "$ctl" stop
until_seen 20 at_rest
in_lab "$ctl" goto 0 0 --wait
check 0 '{"error_code":0}'$'\n''{"id":*"outcome":"reached"}' goto 20 0 --wait --json
in_lab sh -c 'ptzctl status >/dev/full' 2>/dev/null && fail "an output that cannot be written is no failure"
check 0 '{"error_code":0}'$'\n''*"outcome":"reached"}' calibrate --wait --json
check 0 '' track on
check 0 '' goto 50 0 --wait
in_lab ubus call ptzd targetTrack '{"x_coord":"-40","y_coord":"9","x_speed":"4","y_speed":"4"}' >/dev/null
check 0 '{"err_code":0}'*'"x":"50","y":"0","outcome":"reached"}' track off --wait --json
check 0 '' goto 20 0 --wait
factor 50 # a second for 20 units
check 0 '' step left --wait
begin goto 150 0 --wait
check 0 '' goto -150 0
check_end 13 '*took the head over*' superseded
begin goto 150 0 --wait
check 0 '' stop
check_end 12 '*was stopped*' stopped
check 5 '*goes on*' goto 150 0 --wait=0.3
moving || fail "after the time of --wait the head does not move on"
for row in 'INT 130' 'TERM 143' 'HUP 129'; do
    read -r signal status <<<"$row"
    begin goto -150 0 --wait
    kill -"$signal" $begun
    wait $begun
    ended=$?
    [ $ended -eq "$status" ] || fail "$signal ends with $ended, not with $status"
    at_rest || fail "$signal does not stop the head"
done
begin goto 150 0 --wait --no-stop
kill -TERM $begun
wait $begun
moving || fail "--no-stop stops the head"
begin goto -150 0 --wait
"$lab" ptzd kill
check_end 14 '*ptzd went away*' 'daemon killed'
check 4 'ptzctl: ptzd is not on the bus*' home
factor 4000
"$lab" ptzd start || fail "ptzd does not start again"
check 0 '' calibrate
check 6 '*being calibrated*' home
check 0 '*calibrating*' status
until_seen 20 in_lab "$ctl" home

# ---- watch, over a restart of daemon and bus ----
"$lab" exec -- "$ctl" watch >watched 2>&1 &
watching=$!
seen() {
    grep -qE "$1" watched
}
until_seen 20 seen 'at rest' || fail "watch shows no position"
factor 100
in_lab "$ctl" goto 60 0 --wait
for text in 'begins: user, to pan 60, tilt 0' 'pan [1-5]?[0-9], tilt' 'reached, at pan 60, tilt 0'; do
    until_seen 20 seen "$text" || fail "watch does not print \"$text\": $(cat watched)"
done
factor 4000
"$lab" ptzd restart
until_seen 20 seen 'ptzd is there' || fail "watch does not survive a restart"
"$lab" bus restart
until_seen 20 seen 'the bus has gone' || fail "watch does not notice the loss of the bus"
until_seen 20 in_lab "$ctl" status
until_seen 20 eval '[ "$(grep -c "ptzd is there" watched)" -eq 2 ]' || fail "watch does not find the daemon again"
in_lab "$ctl" goto -20 0 --wait
until_seen 20 seen 'reached, at pan -20, tilt 0' || fail "watch does not subscribe again: $(cat watched)"
kill -INT $watching
wait $watching || fail "watch ends with $?"

# ---- a daemon that never answers, a bus that goes ----
pid=$(cat "$PTZD_LAB_DIR/pid/ptzd")
kill -STOP "${pid%% *}"
check 5 '*has not answered getStatus within 0.5 s*' -t 0.5 status
check 5 'ptzctl: the setting is stored, but not applied: ptzd has not answered*' -t 0.5 flip center
kill -CONT "${pid%% *}"
factor 50
begin goto 140 0 --wait
"$lab" bus stop
check_end 14 '*the bus went away*' 'bus stopped'
check 3 'ptzctl: there is no bus*' status

[ $failures -eq 0 ] || echo "$failures failed" >&2
[ $failures -eq 0 ]

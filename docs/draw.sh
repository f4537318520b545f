#!/usr/bin/env bash
# Draws docs/motion.svg, docs/tours.svg and docs/day.svg anew, or those named: docs/draw.sh [motion] [tours] [day].
# Each is a real run in the lab, of seconds, one minute and seven.
set -euo pipefail
cd "$(dirname "$0")/.."
./dev build
lab=$PWD/build/release/lab/ptzd-lab
PTZD_LAB_DIR=$(mktemp -d)
export PTZD_LAB_DIR
trap '"$lab" down >/dev/null 2>&1 || true; rm -rf "$PTZD_LAB_DIR"' EXIT

ptzd() {
    "$lab" exec -- ubus -S call ptzd "$@"
}

moveTo() {
    ptzd moveTo "{\"x_coord\":\"$1\",\"y_coord\":\"$2\"}"
}

setting() {
    "$lab" exec -- uci set "$1"
    "$lab" exec -- uci commit "${1%%.*}"
}

# Waits until the lab's clock shows that time.
at() {
    until [[ $("$lab" clock | cut -d, -f1) > $1 ]]; do sleep 0.02; done
}

# preset ID NAME PAN TILT
preset() {
    moveTo "$3" "$4"
    sleep 3
    ptzd setPreset "{\"id\":\"$1\",\"name\":\"$2\",\"save_ptz\":\"1\"}"
}

# plan DAY {START END PRESET}...: of a day, in minutes
plan() {
    local day=$1 number=0 entries=''
    shift
    while [ $# -gt 0 ]; do
        number=$((number + 1))
        entries+="${entries:+,}{\"${day}_$number\":{\"start_time\":$1,\"end_time\":$2,\"action_type\":\"preset\",\"action_id\":\"$3\"}}"
        shift 3
    done
    echo "\"$day\":[$entries]"
}

tour() {
    setting "tour.tour_info.tour_type=$1"
    setting tour.tour_info.enabled=on
    ptzd reload_tour_info
}

# The picture begins behind this: what is before is not drawn.
begin() {
    "$lab" clock set "$1"
    : >"$PTZD_LAB_DIR/journal"
    : >"$PTZD_LAB_DIR/cet.log"
    "$lab" clock speed "$2"
}

motion() {
    "$lab" up --factor 500
    sleep 1
    moveTo 100 40
    sleep 2
    moveTo -120 -30
    sleep 3
    ptzd move '{"x_coord":"1000","y_coord":"60"}'
    sleep 1
    ptzd stop
    sleep 1
    moveTo 0 0
    sleep 1
}

tours() {
    local date=2026-11-23 # a Monday
    "$lab" up
    preset 1 door 90 30
    preset 2 gate -90 0
    ptzd set_plan_config "{$(plan monday 480 482 1 482 600 2)}"
    setting tour.scan_tour.x_coord_start=-40
    ptzd reload_scan_tour
    begin "$date 07:55:40" 10
    at "$date 07:55:50"
    tour 1
    at "$date 07:57:55"
    moveTo 120 20
    at "$date 07:59:55"
    tour 2
    at "$date 08:02:40"
    ptzd targetTrack '{"x_coord":"40","y_coord":"15","x_speed":"4","y_speed":"4"}'
    at "$date 08:02:55"
    ptzd targetTrack '{"x_coord":"35","y_coord":"-10","x_speed":"4","y_speed":"4"}'
    at "$date 08:03:15"
    ptzd targetTrackBack
    at "$date 08:04:00"
    moveTo 0 0
    at "$date 08:05:30"
}

day() {
    local date=2026-11-23 minute
    "$lab" up
    preset 1 yard -110 0
    preset 2 gate 100 -20
    preset 3 door 20 35
    preset 4 path -30 10
    ptzd set_plan_config "{$(plan monday 0 390 1 390 540 2 540 960 3 960 1140 4 1140 1320 2 1320 1440 1),$(plan tuesday 0 390 3)}"
    begin '2026-11-22 23:50:00' 200
    tour 2
    at "$date 07:30:00"
    moveTo 60 20
    at "$date 10:15:00"
    ptzd startPanorama
    for minute in 20 25 30 35 40; do
        at "$date 10:$minute:00"
        ptzd movePanorama '{"x_coord":"60","y_coord":"0"}'
    done
    at "$date 10:45:00"
    ptzd stopPanorama
    at "$date 14:00:00"
    setting lens_mask.lens_mask_info.enabled=on
    ptzd lensMask
    at "$date 17:00:00"
    setting lens_mask.lens_mask_info.enabled=off
    ptzd lensMask
    at "$date 20:30:00"
    ptzd targetTrack '{"x_coord":"-60","y_coord":"40","x_speed":"4","y_speed":"4"}'
    at "$date 20:37:00"
    ptzd targetTrackBack
    at '2026-11-24 00:03:00'
}

[ $# -gt 0 ] || set -- motion tours day
for picture in "$@"; do
    "$picture"
    "$lab" plot "docs/$picture.svg"
    "$lab" down
    rm -rf "$PTZD_LAB_DIR"
done

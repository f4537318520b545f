#!/usr/bin/env bash
# Applies the faults of this folder to a copy of the sources, one at a time, and says for each which test catches it.
#
# run.sh [--jobs N] [NAME...]: all mutants, or those named, in that order; a name may be a pattern, "motor-*". N are
# tried at once, each in its own copy and build. Status 1 when one is missed that equivalent.txt does not name, 2 when a
# mutant cannot be tried or the tests fail without one.
set -euo pipefail

here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
root=$(dirname "$(dirname "$here")")
work=$root/build/mutate
results=$work/results.txt
fuzzers=(delPreset methods parsers set_plan_config startup) # of the daemon

# Name, seconds, and what runs, cheapest first: only what a stage lets pass is built for the next one and gets there. A
# stage with a filter is a GoogleTest program; one with "twice" starts daemons, so that what fails in it must fail once
# more. A model that disagrees goes on to shorten its sequence, so its limit is little more than an agreeing one takes.
stages=(
    'unit_test   60  once  tests/unit/unit_test     *'
    'fuzz        60  once  replay'
    'model_test  90  twice tests/model/model_test   *'
    'system_test 240 twice tests/system/system_test *'
    'fault_test  180 twice tests/faults/fault_test  *'
)

die() {
    echo "mutate: $*" >&2
    exit 2
}

# Brings a copy up to date. What is as it was keeps its time, so that ninja builds no more than what has changed; a
# fault that an interrupted run has left differs, and goes.
update_copy() {
    local copy=$1 file
    (cd "$root" && git ls-files -z) | while IFS= read -r -d '' file; do
        [ -e "$root/$file" ] || continue
        cmp -s "$root/$file" "$copy/$file" && continue
        mkdir -p "$copy/$(dirname "$file")"
        cp "$root/$file" "$copy/$file"
    done
}

# build_stage COPY NAME: what a stage needs.
build_stage() {
    local copy=$1 targets=("$2")
    case $2 in
    fuzz) targets=("${fuzzers[@]/#/fuzz_}") ;;
    *_test) [ "$2" = unit_test ] || targets+=(runnable) ;;
    esac
    (cd "$copy" && { [ -e build/release/build.ninja ] || cmake --preset release; } &&
        cmake --build build/release --target "${targets[@]}") >"$copy.build.log" 2>&1
}

replay_fuzzers() {
    local copy=$1 seconds=$2 name
    for name in "${fuzzers[@]}"; do
        echo "[ RUN      ] fuzz.$name"
        timeout -k 5 "$seconds" "$copy/build/release/tests/fuzz/fuzz_$name" "$copy/tests/fuzz/corpus/$name" || return 1
    done
}

# run_program COPY SECONDS PROGRAM [FILTER]: the output is in COPY.out; `failing` names the tests that fail, at most
# three, or the one in which the program dies or hangs.
run_program() {
    local copy=$1 seconds=$2 program=$3 filter=${4:-} status=0 command
    if [ "$program" = replay ]; then
        command=(replay_fuzzers "$copy" "$seconds")
    else
        command=(timeout -k 5 "$seconds" "$copy/build/release/$program" "--gtest_filter=$filter")
        # Where each test takes seconds, the first failure is enough.
        [ "$program" = tests/unit/unit_test ] || command+=(--gtest_fail_fast)
    fi
    "${command[@]}" >"$copy.out" 2>&1 </dev/null || status=$?
    failing=''
    [ $status -ne 0 ] || return 0
    failing=$(sed -nE 's/^\[  FAILED  \] ([A-Za-z0-9_/]+\.[A-Za-z0-9_/]+).*/\1/p' "$copy.out" | sort -u | head -n 3 |
        paste -sd ' ')
    # Without a summary the program has ended, or was ended, amid its last test.
    [ -n "$failing" ] || failing=$(sed -nE 's/^\[ RUN      \] //p' "$copy.out" | tail -n 1)
    return 1
}

# run_stage COPY SECONDS once|twice PROGRAM [FILTER]: @return 1 when a test fails, and fails again where "twice" is
# asked for. A test that does not fail again is left out, and the others run.
run_stage() {
    local copy=$1 seconds=$2 times=$3 program=$4 filter=${5:-} left_out='' found _
    for _ in 1 2 3; do
        run_program "$copy" "$seconds" "$program" "$filter$left_out" && return 0
        [ "$times" = twice ] || return 1
        found=${failing:-$filter} # all of them when the program does not get as far as a test
        run_program "$copy" "$seconds" "$program" "${found// /:}" || {
            failing=$found
            return 1
        }
        [[ $filter$left_out == *-* ]] && left_out+=":${found// /:}" || left_out="-${found// /:}"
    done
    return 0
}

# try_stages COPY: @return 1 when a stage fails; `caught_by` says which test; 2 when the sources do not build.
try_stages() {
    local copy=$1 stage fields
    for stage in "${stages[@]}"; do
        read -ra fields <<<"$stage"
        build_stage "$copy" "${fields[0]}" || return 2
        run_stage "$copy" "${fields[@]:1}" && continue
        caught_by="${fields[0]}: $failing"
        return 1
    done
}

say() {
    printf '%-7s %-44s %s\n' "$@" | sed 's/ *$//' | tee -a "$results"
}

equivalent() {
    sed -nE "s/^$1: *//p" "$here/equivalent.txt"
}

try_mutant() {
    local copy=$1 name=$2 patch=$here/$2.patch file reason status=0 # a mutant changes one file
    file=$(sed -nE 's|^\+\+\+ b/([^[:space:]]+).*|\1|p' "$patch")
    if ! patch -d "$copy" -p1 -s -F0 --no-backup-if-mismatch --dry-run <"$patch" >/dev/null; then
        say ERROR "$name" 'does not apply'
        return
    fi
    patch -d "$copy" -p1 -s -F0 <"$patch"
    reason=$(equivalent "$name")
    try_stages "$copy" || status=$?
    if [ $status -eq 2 ]; then
        say ERROR "$name" "does not build, see ${copy#"$root"/}.build.log"
        mv "$copy.build.log" "$work/$name.build.log"
    elif [ $status -eq 1 ]; then
        say caught "$name" "$caught_by${reason:+ (though equivalent.txt names it)}"
    elif [ -n "$reason" ]; then
        say equal "$name" "$reason"
    else
        say MISSED "$name" "$(head -n 1 "$patch")"
    fi
    cp "$root/$file" "$copy/$file"
}

# Takes the next mutant that no other job has taken.
run_job() {
    local copy=$1 name
    shift
    mkdir -p "$copy"
    update_copy "$copy"
    TMPDIR=$(mktemp -d) # heads that are killed leave their folders
    export TMPDIR
    trap 'rm -rf "$TMPDIR"' EXIT
    for name in "$@"; do
        mkdir "$work/taken/$name" 2>/dev/null || continue
        try_mutant "$copy" "$name"
    done
}

# Tests that fail without a mutant say nothing about one. They run again when anything but the mutants has changed.
check_clean() {
    local copy=$1 caught_by state status=0
    state=$(cd "$root" && git ls-files -z -- . ':!tests/mutants' | xargs -0 sha1sum 2>/dev/null | sha1sum)
    [ "$(cat "$work/clean" 2>/dev/null)" != "$state" ] || return 0
    mkdir -p "$copy"
    update_copy "$copy"
    try_stages "$copy" || status=$?
    [ $status -ne 2 ] || die "the sources do not build, see $copy.build.log"
    [ $status -eq 0 ] || die "fails without a mutant: $caught_by; see $copy.out"
    echo "$state" >"$work/clean"
    echo "mutate: the tests pass without a mutant, after $SECONDS s"
}

jobs=1
if [ "${1:-}" = --jobs ]; then
    [[ ${2:-} =~ ^[1-9]$ ]] || die "--jobs wants a number from 1 to 9"
    jobs=$2
    shift 2
fi
[ $# -gt 0 ] || set -- '*'
names=()
for pattern in "$@"; do # in the order that is asked for
    # shellcheck disable=SC2206 # a pattern is meant
    found=("$here"/$pattern.patch)
    [ -e "${found[0]}" ] || die "no mutant is named $pattern"
    for patch in "${found[@]}"; do
        name=$(basename "$patch" .patch)
        [[ " ${names[*]} " == *" $name "* ]] || names+=("$name")
    done
done

mkdir -p "$work"
rm -rf "$work/taken" "$results"
mkdir "$work/taken"
trap 'jobs -p | xargs -r kill 2>/dev/null || true' EXIT # which an interrupt does not reach; some have ended
trap 'exit 130' INT TERM
check_clean "$work/src"
for ((job = 1; job <= jobs; ++job)); do
    run_job "$work/src${job#1}" "${names[@]}" &
done
wait
count() {
    grep -c "^$1 " "$results" || true
}
echo "mutate: ${#names[@]} mutants, $(count caught) caught, $(count MISSED) missed, $(count equal) equivalent," \
    "$(count ERROR) could not be tried, $SECONDS s; all in ${results#"$root"/}"
[ $(($(count caught) + $(count MISSED) + $(count equal))) -eq ${#names[@]} ] || exit 2
[ "$(count MISSED)" -eq 0 ]

#!/usr/bin/env bash
# Mutation run: puts back, one at a time, each defect of tests/mutation/defects.txt
# into a copy of the tree and runs the tests that ought to catch it. A defect
# that every named test lets through is a guarantee the suites do not hold.
#
# The copy is the working tree as it is now (tracked files with their
# uncommitted changes, and untracked files that are not ignored), without
# build trees or .git, so that tests still being written count. It is built
# once; each defect then costs the rebuild of what it touches and the tests it
# names. Nothing here changes the tree the script is run from.
#
# Outcomes, one line per defect:
#   caught          a named test failed; the first one is shown
#   caught (hang)   the named tests did not finish within --timeout; a defect
#                   that makes a test hang is caught, the line says so
#   SURVIVED        every named test passed with the defect in place
#   stale           the original text does not occur exactly once in its file,
#                   or no test matches the defect's pattern: the list is out
#                   of date
#   does-not-build  the defect does not compile: a mistake in the list, never
#                   counted as caught
# The exit status is 0 only when every defect run was caught; 1 when one
# survived, is stale or does not build; 2 on a usage error; 3 when the copy
# cannot be configured or built, or its named tests fail without any defect.

set -uo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)

list="$here/defects.txt"
scratch=""
keep=0
ctest_jobs=2
build_jobs=2
timeout_seconds=900
test_timeout=300
baseline=1
check_only=0
results_file=""
patterns=()

usage() {
    cat <<'EOF'
Usage: tests/mutation/run.sh [OPTIONS] [ID|PATTERN...]

Runs each defect of the list (all of them, or those whose id matches one of
the shell patterns given, e.g. 'trust-*') against a scratch copy of the tree
and reports which ones the tests catch.

Options:
  -l, --list FILE       defect list (default: tests/mutation/defects.txt)
  -s, --scratch DIR     scratch directory; an earlier run's directory is
                        reused and only rebuilt where the tree changed
                        (default: a new directory under ${TMPDIR:-/tmp})
  -k, --keep            keep the scratch directory (its build tree and the
                        logs of every defect under logs/)
  -j, --jobs N          tests ctest runs at a time (default: 2)
      --build-jobs N    compile jobs (default: 2)
  -t, --timeout SEC     time limit for one defect's tests (default: 900);
                        running out of it counts as caught, by a hang
      --test-timeout S  time limit for one test that has none of its own
                        (default: 300)
      --no-baseline     do not run the named tests on the unchanged copy first
  -o, --results FILE    also write the results as tab-separated lines
      --check           only check that each original text occurs exactly
                        once in the working tree; builds nothing
      --ids             print the ids of the list and exit
  -h, --help            this text
EOF
}

die_usage() {
    echo "run.sh: $*" >&2
    echo "Try 'tests/mutation/run.sh --help'." >&2
    exit 2
}

while (($#)); do
    case "$1" in
    -l | --list) list=${2:?}; shift 2 ;;
    -s | --scratch) scratch=${2:?}; shift 2 ;;
    -k | --keep) keep=1; shift ;;
    -j | --jobs) ctest_jobs=${2:?}; shift 2 ;;
    -j*) ctest_jobs=${1#-j}; shift ;;
    --build-jobs) build_jobs=${2:?}; shift 2 ;;
    -t | --timeout) timeout_seconds=${2:?}; shift 2 ;;
    --test-timeout) test_timeout=${2:?}; shift 2 ;;
    --no-baseline) baseline=0; shift ;;
    -o | --results) results_file=${2:?}; shift 2 ;;
    --check) check_only=1; shift ;;
    --ids) check_only=2; shift ;;
    -h | --help) usage; exit 0 ;;
    --) shift; patterns+=("$@"); break ;;
    -*) die_usage "unknown option '$1'" ;;
    *) patterns+=("$1"); shift ;;
    esac
done
for number in "$ctest_jobs" "$build_jobs" "$timeout_seconds" "$test_timeout"; do
    [[ $number =~ ^[1-9][0-9]*$ ]] || die_usage "'$number' is not a positive whole number"
done
[[ -f $list ]] || die_usage "no defect list at '$list'"
command -v python3 >/dev/null || { echo "run.sh: python3 is needed to read the defect list" >&2; exit 3; }

# The list's reader, patcher and counter. Python rather than sed: the texts are
# C++ with every character sed would take for syntax, and span several lines.
read -r -d '' helper <<'PYTHON'
import re, sys

def parse(path):
    defects, current, field = [], None, None
    for number, line in enumerate(open(path, encoding="utf-8").read().split("\n"), 1):
        where = f"{path}:{number}"
        if line.startswith("|"):
            if current is None or field not in ("original", "replacement"):
                sys.exit(f"{where}: a text line outside 'original:' or 'replacement:'")
            current[field].append(line[1:])
            continue
        field = None
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        header = re.fullmatch(r"\[([A-Za-z0-9][A-Za-z0-9._-]*)\]", line.strip())
        if header:
            current = {"id": header.group(1), "line": number, "original": [], "replacement": []}
            defects.append(current)
            continue
        key, colon, value = line.partition(":")
        key = key.strip()
        if current is None or not colon or key not in ("guarantee", "file", "tests", "original", "replacement"):
            sys.exit(f"{where}: expected '[id]', 'guarantee:', 'file:', 'tests:', 'original:' or 'replacement:'")
        if key in ("original", "replacement"):
            if value.strip():
                sys.exit(f"{where}: the text of '{key}:' goes on the lines below it, each after a '|'")
            field = key
        else:
            current[key] = value.strip()
    seen = set()
    for d in defects:
        for key in ("guarantee", "file", "tests"):
            if not d.get(key):
                sys.exit(f"{path}:{d['line']}: defect '{d['id']}' has no '{key}:'")
        if not d["original"]:
            sys.exit(f"{path}:{d['line']}: defect '{d['id']}' has no original text")
        if d["original"] == d["replacement"]:
            sys.exit(f"{path}:{d['line']}: defect '{d['id']}' changes nothing")
        if d["id"] in seen:
            sys.exit(f"{path}:{d['line']}: defect '{d['id']}' is listed twice")
        seen.add(d["id"])
    return defects

def find(defects, ident):
    for d in defects:
        if d["id"] == ident:
            return d
    sys.exit(f"no defect '{ident}'")

command, path = sys.argv[1], sys.argv[2]
defects = parse(path)
if command == "list":
    # id, file, tests, guarantee: one defect a line
    for d in defects:
        print("\t".join((d["id"], d["file"], d["tests"], d["guarantee"])))
elif command in ("count", "apply"):
    d = find(defects, sys.argv[3])
    target = sys.argv[4]
    original, replacement = "\n".join(d["original"]), "\n".join(d["replacement"])
    with open(target, encoding="utf-8", newline="") as stream:
        text = stream.read()
    count = text.count(original)
    if command == "count":
        print(count)
    elif count != 1:
        sys.exit(f"the original text of '{d['id']}' occurs {count} times in {target}")
    else:
        with open(target, "w", encoding="utf-8", newline="") as stream:
            stream.write(text.replace(original, replacement, 1))
PYTHON

defect_lines=$(python3 -c "$helper" list "$list") || exit 2
ids=() files=() tests=() guarantees=()
while IFS=$'\t' read -r id file regex guarantee; do
    selected=$((${#patterns[@]} == 0))
    for pattern in "${patterns[@]}"; do
        # shellcheck disable=SC2053 # a pattern, on purpose
        [[ $id == $pattern ]] && selected=1
    done
    ((selected)) || continue
    ids+=("$id") files+=("$file") tests+=("$regex") guarantees+=("$guarantee")
done <<<"$defect_lines"
((${#ids[@]})) || die_usage "no defect of $list matches: ${patterns[*]}"

if ((check_only == 2)); then
    printf '%s\n' "${ids[@]}"
    exit 0
fi

if ((check_only == 1)); then
    bad=0
    for i in "${!ids[@]}"; do
        count=$(python3 -c "$helper" count "$list" "${ids[$i]}" "$repo/${files[$i]}" 2>/dev/null || echo "no file")
        if [[ $count != 1 ]]; then
            printf '%-40s stale (%s occurrences in %s)\n' "${ids[$i]}" "$count" "${files[$i]}"
            bad=1
        fi
    done
    ((bad)) || echo "all ${#ids[@]} defects apply to the working tree"
    exit "$bad"
fi

# ---------------------------------------------------------------------------
# The scratch copy

# A directory named with -s is used only when it is empty or an earlier run's,
# as its stamp says: the copy deletes what the tree does not have.
stamp=.quor-mutation-scratch
if [[ -z $scratch ]]; then
    # Open to all for reading like any build tree: the tests that run the tool
    # as another user must reach it.
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/quor-mutation.XXXXXX") && chmod 755 "$scratch" || exit 3
else
    scratch=$(realpath -m "$scratch")
    case "$scratch/" in
    "$repo"/*) die_usage "the scratch directory must lie outside the tree ($repo)" ;;
    esac
    if [[ -e $scratch && ! -f $scratch/$stamp && -n $(ls -A "$scratch" 2>/dev/null) ]]; then
        die_usage "'$scratch' is neither empty nor the scratch directory of an earlier run"
    fi
    mkdir -p "$scratch" || exit 3
fi
touch "$scratch/$stamp" || exit 3
src="$scratch/src" build="$scratch/build" logs="$scratch/logs" saved="$scratch/original"
mkdir -p "$src" "$logs" "$saved"
# The list as it is now: an edit to it while the run goes on changes nothing.
cp "$list" "$scratch/defects.txt" && list="$scratch/defects.txt" || exit 3

current_file=""
restore() {
    if [[ -n $current_file && -f $saved/file ]]; then
        cp "$saved/file" "$src/$current_file" && cmp -s "$saved/file" "$src/$current_file" ||
            echo "run.sh: could not restore $src/$current_file" >&2
        current_file=""
    fi
}
cleanup() {
    restore
    if ((keep)); then
        echo "scratch directory kept: $scratch"
    else
        # Only what a run puts there, and then the directory if nothing is left.
        rm -rf "${src:?}" "${build:?}" "${logs:?}" "${saved:?}" "${scratch:?}/defects.txt" "${scratch:?}/$stamp"
        rmdir "$scratch" 2>/dev/null
    fi
}
whole_run_started=$SECONDS
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Brings the copy up to the working tree, writing only the files whose bytes
# differ, so that a reused build recompiles only what changed since.
echo "copying the working tree of $repo into $src"
copied=0
declare -A wanted=()
while IFS= read -r -d '' path; do
    case "$path" in build/* | build-*/* | .git/*) continue ;; esac
    [[ -f $repo/$path && ! -L $repo/$path ]] || [[ -L $repo/$path ]] || continue
    wanted[$path]=1
    if [[ -L $repo/$path ]]; then
        [[ -L $src/$path && $(readlink "$src/$path") == "$(readlink "$repo/$path")" ]] && continue
        mkdir -p "$(dirname "$src/$path")" && rm -f "$src/$path" && cp -P "$repo/$path" "$src/$path"
    else
        cmp -s "$repo/$path" "$src/$path" 2>/dev/null && continue
        mkdir -p "$(dirname "$src/$path")" && rm -f "$src/$path" && cp "$repo/$path" "$src/$path"
    fi || exit 3
    copied=$((copied + 1))
done < <(git -C "$repo" ls-files -z --cached --others --exclude-standard)
# A file gone from the tree goes from the copy too.
while IFS= read -r -d '' path; do
    path=${path#./}
    [[ -n ${wanted[$path]+x} ]] || { rm -f "$src/$path"; copied=$((copied + 1)); }
done < <(cd "$src" && find . \( -type f -o -type l \) -print0)
echo "  ${#wanted[@]} files, $copied written"

if [[ ! -f $build/CMakeCache.txt ]]; then
    echo "configuring $build"
    # Every defect relinks the test executables: lld does it in a fraction of
    # the time of the default linker, and links the same program.
    linker=()
    if command -v ld.lld >/dev/null; then
        linker=(-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld
            -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld)
    fi
    nice cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DQUOR_BUILD_TESTS=ON -DQUOR_BUILD_TOOLS=ON \
        -DQUOR_BUILD_BENCHMARKS=OFF -DQUOR_BUILD_FUZZERS=OFF "${linker[@]}" >"$logs/configure.log" 2>&1 ||
        { echo "run.sh: configuring failed, see $logs/configure.log" >&2; keep=1; exit 3; }
fi
echo "building the unchanged copy"
started=$SECONDS
nice cmake --build "$build" -j "$build_jobs" >"$logs/build.log" 2>&1 ||
    { echo "run.sh: the unchanged copy does not build, see $logs/build.log" >&2; keep=1; exit 3; }
echo "  built in $((SECONDS - started)) s"

# The test executables that hold the tests a pattern selects, as targets of
# the build: each defect rebuilds only those.
targets_of() {
    ctest --test-dir "$build" -N -R "$1" --show-only=json-v1 2>/dev/null | python3 -c '
import json, os, sys
names = set()
for test in json.load(sys.stdin).get("tests", []):
    command = test.get("command") or []
    if command:
        names.add(os.path.basename(command[0]))
print(" ".join(sorted(names)))'
}

# Runs the tests `regex` selects, less those that fail anyway; prints the
# ctest exit status, or 124 when the time limit ran out.
excluded=""
run_tests() {
    local regex=$1 log=$2 stop=${3:-stop}
    local args=(--test-dir "$build" -R "$regex" -j "$ctest_jobs" --timeout "$test_timeout"
        --no-tests=error)
    [[ $stop == stop ]] && args+=(--stop-on-failure)
    [[ -n $excluded ]] && args+=(-E "$excluded")
    timeout -k 30 "$timeout_seconds" nice ctest "${args[@]}" >"$log" 2>&1
    echo $?
}

# The tests a ctest log shows as not passed, in the order they ended, one a
# line: the name (to its first blank: a parameterised case's name goes on
# with its parameter's bytes), a tab, and how it ended.
failures_in() {
    sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*\.\.\. *(.*[^ ]) +[0-9.]+ sec$/\1\t\2/p' "$1" |
        grep -v $'\tPassed$'
}

# The tests a ctest log shows as started but not ended: those a hang held.
unfinished() {
    sed -nE 's/^ *Start +[0-9]+: ([^ ]+).*/\1/p' "$1" | sort >"$1.started"
    sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*/\1/p' "$1" | sort | comm -23 "$1.started" - |
        paste -sd' '
    rm -f "$1.started"
}

# The first failed test of a ctest log, with how it failed when that was not
# an ordinary failure.
first_failure() {
    local name how
    IFS=$'\t' read -r name how < <(failures_in "$1")
    case "$how" in
    "") ;;
    *Failed) echo "$name" ;;
    *Timeout) echo "$name (its own time limit ran out)" ;;
    *)
        how=${how//\*\*\*/ }
        echo "$name (${how# })"
        ;;
    esac
}

if ((baseline)); then
    union=$(printf '%s\n' "${tests[@]}" | sort -u | paste -sd'|')
    echo "running the named tests on the unchanged copy"
    started=$SECONDS
    status=$(timeout_seconds=$((timeout_seconds * 4)) run_tests "$union" "$logs/baseline.log" all)
    echo "  done in $((SECONDS - started)) s"
    if [[ $status != 0 ]]; then
        failing=$(failures_in "$logs/baseline.log" | cut -f1)
        if [[ -z $failing ]]; then
            echo "run.sh: the named tests do not run on the unchanged copy, see $logs/baseline.log" >&2
            keep=1
            exit 3
        fi
        # --stop-on-failure is not used here, so every failing test is known;
        # they cannot vouch for any defect and are left out of every run.
        echo "  failing without any defect, left out of every run:"
        while IFS= read -r name; do echo "    $name"; done <<<"$failing"
        excluded=$(python3 -c '
import re, sys
print("|".join("^" + re.escape(name) + "( |$)" for name in sys.stdin.read().split()))' <<<"$failing") ||
            exit 3
    fi
fi

# ---------------------------------------------------------------------------
# The defects, grouped by file so that the file restored after one defect is
# the file the next one changes, and the rebuild between them compiles it once.

order=$(for i in "${!ids[@]}"; do printf '%s\t%d\n' "${files[$i]}" "$i"; done | sort -s -t$'\t' -k1,1 | cut -f2)
total=${#ids[@]}
caught=0 survived=0 stale=0 broken=0 position=0
survivors=() results=()
run_started=$SECONDS
printf '\n%-7s %-42s %-15s %s\n' "" "defect" "outcome" "detail"
for i in $order; do
    position=$((position + 1))
    id=${ids[$i]} file=${files[$i]} regex=${tests[$i]}
    log="$logs/$id"
    outcome="" detail=""
    defect_started=$SECONDS
    count=$(python3 -c "$helper" count "$list" "$id" "$src/$file" 2>/dev/null || echo "no file")
    targets=$(targets_of "$regex")
    if [[ $count != 1 ]]; then
        outcome=stale detail="the original text occurs $count times in $file"
    elif [[ -z $targets ]]; then
        outcome=stale detail="no test matches '$regex'"
    else
        cp "$src/$file" "$saved/file" && current_file=$file
        python3 -c "$helper" apply "$list" "$id" "$src/$file" || exit 3
        # Ninja goes by time stamps: a file changed within the second of its
        # last compile must still look newer.
        touch "$src/$file"
        # shellcheck disable=SC2086 # a list of target names
        if ! nice cmake --build "$build" -j "$build_jobs" --target $targets >"$log.build.log" 2>&1; then
            outcome=does-not-build detail="see $log.build.log"
        else
            build_seconds=$((SECONDS - defect_started))
            status=$(run_tests "$regex" "$log.test.log")
            test_seconds=$((SECONDS - defect_started - build_seconds))
            case "$status" in
            0) outcome=SURVIVED detail="${test_seconds}s of tests passed" ;;
            124 | 137)
                outcome="caught (hang)"
                detail="still running after ${timeout_seconds}s: $(unfinished "$log.test.log")"
                ;;
            *)
                outcome=caught
                detail=$(first_failure "$log.test.log")
                if [[ -z $detail ]] && grep -q "No tests were found" "$log.test.log"; then
                    outcome=stale detail="every test '$regex' matches fails without the defect"
                fi
                [[ -n $detail ]] || detail="ctest status $status, see $log.test.log"
                detail="$detail (${test_seconds}s)"
                ;;
            esac
        fi
        restore
        touch "$src/$file"
    fi
    case "$outcome" in
    caught*) caught=$((caught + 1)) ;;
    SURVIVED) survived=$((survived + 1)); survivors+=("$id: ${guarantees[$i]}") ;;
    stale) stale=$((stale + 1)) ;;
    does-not-build) broken=$((broken + 1)) ;;
    esac
    printf '[%2d/%2d] %-42s %-15s %s\n' "$position" "$total" "$id" "$outcome" "$detail"
    results+=("$id"$'\t'"$outcome"$'\t'"$detail"$'\t'"$((SECONDS - defect_started))")
done

elapsed=$((SECONDS - run_started))
echo
printf 'caught %d of %d defects (%d%%) in %dm%02ds' "$caught" "$total" $((caught * 100 / total)) \
    $((elapsed / 60)) $((elapsed % 60))
printf ' (the whole run %dm%02ds); survived %d, stale %d, does not build %d\n' \
    $(((SECONDS - whole_run_started) / 60)) $(((SECONDS - whole_run_started) % 60)) \
    "$survived" "$stale" "$broken"
if ((survived)); then
    echo "surviving defects (guarantees no test holds):"
    printf '  %s\n' "${survivors[@]}"
fi
if [[ -n $results_file ]]; then
    printf 'id\toutcome\tdetail\tseconds\n' >"$results_file"
    printf '%s\n' "${results[@]}" >>"$results_file"
fi
((survived + stale + broken == 0))

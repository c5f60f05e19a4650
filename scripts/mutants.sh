#!/usr/bin/env bash
# Mutation run: how many plausible single-line faults the release suite
# catches.  Each fault of the list is applied to a scratch copy of the tree,
# the copy is rebuilt incrementally (one build folder reused, with ccache
# when present) and the test programs are run on it; a fault is killed when
# any test fails, crashes or runs past the time limit.  Prints the kill
# table (markdown) and the kill rate, and keeps them with the logs of each
# fault in the scratch folder.  Not part of CI; run it while the machine is
# quiet:
#
#   nice scripts/mutants.sh [fault list] [scratch folder]
#
# The list (default scripts/mutants.txt) holds one fault a line,
#   path @@ text @@ replacement
# where the text must occur exactly once in the file; '#' starts a comment.
# Environment: JOBS (build jobs, default 2); TEST_TIMEOUT (the ctest limit of
# each test in the scratch build, default 30 s); PROGRAM_TIMEOUT (the limit
# of one whole test program, default 600 s); REUSE_TREE (see below).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=$(realpath "${1:-$root/scripts/mutants.txt}")
scratch=$(mkdir -p "${2:-${TMPDIR:-/tmp}/torix-mutants}" && cd "${2:-${TMPDIR:-/tmp}/torix-mutants}" && pwd)
jobs=${JOBS:-2}
limit=${TEST_TIMEOUT:-30}
plimit=${PROGRAM_TIMEOUT:-600}
tree=$scratch/tree
bdir=$scratch/build
logs=$scratch/logs

# The working tree (tracked and new files, not the ignored build outputs),
# modification times kept so that the build folder stays incremental.
# REUSE_TREE=1 keeps the scratch copy as it stands (to go on with more faults).
rm -rf "$logs"
mkdir -p "$logs"
if [[ -z "${REUSE_TREE:-}" || ! -d "$tree" ]]; then
    rm -rf "$tree"
    mkdir -p "$tree"
    (cd "$root" && git ls-files -z -c -o --exclude-standard | tar --null -T - -cf -) | tar -xf - -C "$tree"
fi

launcher=()
if command -v ccache > /dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# The library is built shared and the programs are not relinked when it
# changes: a fault costs one compile and one link.
cmake -S "$tree" -B "$bdir" -DCMAKE_BUILD_TYPE=Release -DTORIX_BUILD_TESTS=ON -DTORIX_TEST_TIMEOUT="$limit" \
    -DTORIX_SHARED_CORE=ON -DCMAKE_LINK_DEPENDS_NO_SHARED=ON "${launcher[@]}" > "$logs/configure.log" 2>&1 ||
    { cat "$logs/configure.log"; exit 1; }

# The suite: every test program, each run whole (the tests ctest lists are
# the tests of these programs, found by gtest discovery), with the thread
# count and working folder that ctest gives them.  One process per program
# instead of one per test makes a run several times quicker.  A fault is
# killed at its first failure, so the programs of the faulty file's own
# folder go first and each stops at its first failing test.
programs() {  # $1: source folder name first
    find "$bdir/tests/$1" -maxdepth 1 -type f -executable -name 'test_*' | sort
    find "$bdir/tests" -mindepth 2 -maxdepth 2 -type f -executable -name 'test_*' -not -path "$bdir/tests/$1/*" | sort
}
run_suite() {  # $1: source folder name; $2: log name; prints the first failing test, returns 1 on a failure
    local exe first
    for exe in $(programs "$1"); do
        # No stdin: a launcher that a test starts (mpirun) would read it.
        if ! (cd "$(dirname "$exe")" && OMP_NUM_THREADS=2 OMP_WAIT_POLICY=PASSIVE \
              timeout "$plimit" "$exe" --gtest_fail_fast --gtest_brief=1) < /dev/null >> "$logs/$2.test.log" 2>&1; then
            first=$(grep -m1 -E '^\[  FAILED  \] [A-Za-z_]' "$logs/$2.test.log" | sed -E 's/^\[  FAILED  \] ([^ ,]+).*/\1/')
            echo "${first:-$(basename "$exe") (crashed or timed out)}"
            return 1
        fi
    done
}

echo "building the unchanged tree" >&2
cmake --build "$bdir" -j "$jobs" > "$logs/base.build.log" 2>&1 || { tail -40 "$logs/base.build.log"; exit 1; }
if ! run_suite core base > /dev/null; then
    echo "the suite fails on the unchanged tree; see $logs/base.test.log" >&2
    exit 1
fi

# apply FILE TEXT REPLACEMENT: replaces the one occurrence of TEXT.
apply() {
    python3 - "$@" << 'PY'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
n = text.count(old)
if n != 1:
    sys.exit(f"{path}: the fault's text occurs {n} times, expected once")
open(path, "w", encoding="utf-8").write(text.replace(old, new))
PY
}

table=$scratch/kill-table.md
{
    echo "| # | file | fault: text -> replacement | result | first failing test |"
    echo "|---|---|---|---|---|"
} > "$table"
cat "$table"
id=0 killed=0 survived=0 unbuilt=0
# The list comes on descriptor 3, out of reach of what the loop runs.
while IFS= read -r -u 3 line || [[ -n "$line" ]]; do
    [[ -z "${line// /}" || "$line" == \#* ]] && continue
    path=${line%% @@ *}
    rest=${line#* @@ }
    old=${rest%% @@ *}
    new=${rest#* @@ }
    id=$((id + 1))
    cp "$tree/$path" "$logs/original"
    if ! apply "$tree/$path" "$old" "$new" 2> "$logs/$id.apply.log"; then
        cat "$logs/$id.apply.log" >&2
        exit 1
    fi
    result="" failing=""
    if ! cmake --build "$bdir" -j "$jobs" > "$logs/$id.build.log" 2>&1; then
        result="does not build"
        unbuilt=$((unbuilt + 1))
    elif failing=$(run_suite "$(basename "$(dirname "$path")")" "$id"); then
        result="SURVIVED"
        survived=$((survived + 1))
    else
        result="killed"
        killed=$((killed + 1))
    fi
    # Restored as a new file, so that the next build compiles it again.
    cp "$logs/original" "$tree/$path"
    row="| $id | \`${path#src/}\` | \`${old//|/\\|}\` -> \`${new//|/\\|}\` | $result | $failing |"
    echo "$row" >> "$table"
    echo "$row"
done 3< "$list"
# The objects of the last fault would otherwise outlive the run: a fresh copy
# of the tree keeps its files' older times, and the next run's build would
# take the faulty objects for up to date.
cmake --build "$bdir" -j "$jobs" > "$logs/restored.build.log" 2>&1 || true

total=$((killed + survived))
echo
echo "killed $killed of $total faults that build ($((total > 0 ? 100 * killed / total : 0)) %); $unbuilt do not build"
echo "table: $table; logs: $logs"

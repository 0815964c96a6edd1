# SPDX-License-Identifier: MIT
# What ./demo, ./test and the checks share: steps that report in one line, and the installation of what is missing.
# Sourced by bash from the top of the tree.

log_dir=build/log
mkdir -p "$log_dir"

# fail TEXT: one clear line, and out.
fail() {
    printf '%s: %s\n' "$(basename "$0")" "$1" >&2
    exit 1
}

# begin TEXT LOG: the line of a step that starts at $start. A terminal shows there the seconds that go by and the last count
# that the log holds, such as that of compiled files.
begin() {
    printf '%-58s ' "$1"
    ticker=
    [ -t 1 ] || return 0
    while kill -0 $$ 2>/dev/null && sleep 1; do
        printf '\r%-58s %d s %s\033[K' "$1" $((SECONDS - start)) \
            "$(tail -n 20 "$2" | grep -oE '^ *\[?[0-9]+/[0-9]+' | tail -n 1 | tr -d ' [')"
    done &
    ticker=$!
    ticking="\\r$(printf '%-58s ' "$1")\\033[K"
}

# end FORMAT ARGUMENTS...: what came of it.
end() {
    if [ -n "$ticker" ]; then
        kill "$ticker"
        wait "$ticker" 2>/dev/null || true
        printf '%b' "$ticking"
    fi
    # shellcheck disable=SC2059
    printf "$@"
}

# step TEXT COMMAND...: run quietly; one line with the time taken, or the end of the output when it fails. A function as
# command may read its output in $log, set $figure to what is to stand in the line, and must say itself that it failed.
step() {
    local text=$1 start=$SECONDS log figure= ticker ticking
    shift
    log=$log_dir/$(tr -cs 'a-zA-Z0-9' '-' <<<"$text" | sed 's/^-//; s/-$//').log
    begin "$text" "$log"
    if "$@" >"$log" 2>&1 </dev/null; then
        end 'done, %d s%s\n' $((SECONDS - start)) "${figure:+: $figure}"
    else
        end 'FAILED after %d s; the end of %s:\n' $((SECONDS - start)) "$log"
        tail -n 40 "$log"
        fail "$text: failed"
    fi
}

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo -n "$@"; fi
}

install_missing() {
    as_root apt-get update -q &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "$@"
}

# need PACKAGE...: install those that are missing; nothing to do takes no time.
need() {
    local package missing=()
    case $(uname -sm) in
    "Linux x86_64" | "Linux aarch64" | "Linux armv7l" | "Linux i686") ;;
    *) fail "this is $(uname -sm); supported are Linux on x86_64, aarch64, armv7l and i686" ;;
    esac
    command -v apt-get >/dev/null && command -v dpkg-query >/dev/null ||
        fail "no apt here: this needs Debian 12 or a relative; on other systems install by hand: $*"
    for package; do
        [ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" = "install ok installed" ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    printf 'Packages to install: %s\n' "${missing[*]}"
    # A password is asked for before the step, whose output goes into a file; sudo then knows this terminal for a while.
    [ "$(id -u)" = 0 ] || sudo -n true 2>/dev/null || { [ -t 0 ] && command -v sudo >/dev/null && sudo -v; } ||
        fail "run this as root, or on a terminal with sudo, or install as root: apt-get install ${missing[*]}"
    step "Installing packages (needs the network)" install_missing "${missing[@]}"
}

# configure PRESET [NAME=VALUE...]: only when it was not done before, or with another value; the build itself notices
# later changes.
configure() {
    local preset=$1 value old=
    shift
    [ -f "build/$preset/build.ninja" ] && old=build/$preset/CMakeCache.txt
    for value; do
        [ -z "$old" ] || grep -qx "${value%%=*}:[A-Z]*=${value#*=}" "$old" || old=
    done
    [ -n "$old" ] || cmake --preset "$preset" "${@/#/-D}"
}

passed=0 failed=0

# run_tests PRESET: its line counts, its failures are printed; the sums are in $passed and $failed.
run_tests() {
    local log=$log_dir/tests-$1.log start=$SECONDS tests=0 bad=0 ticker ticking
    begin "Testing ($1)" "$log"
    ctest --preset "$1" -j"$(nproc)" >"$log" 2>&1 </dev/null || true
    read -r tests bad < <(awk '/tests passed, .* tests? failed out of/ {print $NF, $4}' "$log") || true
    if [ "${tests:-0}" -eq 0 ]; then
        end 'FAILED: no test ran; the end of %s:\n' "$log"
        tail -n 40 "$log"
        bad=1
    elif [ "$bad" -ne 0 ]; then
        end 'FAILED: %d of %d, %d s\n' "$bad" "$tests" $((SECONDS - start))
        awk '/^ *(Start +[0-9]+:|[0-9]+\/[0-9]+ Test)/ {show = /\*\*\*/} /^The following tests FAILED/ {show = 1} show' "$log" |
            head -n 300
    else
        end 'done, %d s: %d tests\n' $((SECONDS - start)) "$tests"
    fi
    passed=$((passed + tests - bad)) failed=$((failed + bad))
}

# fuzz PROGRAM SEEDS SECONDS: a finding is a failure, and stays in the folder of the logs; what it learns is thrown away.
fuzz() {
    local found status=0 words=()
    found=$(mktemp -d)
    [ -f "$2.dict" ] && words=("-dict=$2.dict")
    "$1" -max_total_time="$3" -max_len=9000 -artifact_prefix="$log_dir/" "${words[@]}" "$found" "$2" || status=$?
    rm -rf "$found"
    figure=$(awk '/DONE +cov:/ {covered = $4} /^Done/ {runs = $2} END {print runs " runs, " covered " edges covered"}' "$log")
    return $status
}

base_packages=(g++ cmake ninja-build qt6-base-dev libdeflate-dev pkg-config)
test_packages=("${base_packages[@]}" libgtest-dev)
packaging_packages=(bash-completion debhelper doxygen help2man lintian systemtap-sdt-dev)

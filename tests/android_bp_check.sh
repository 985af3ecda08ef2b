#!/bin/sh
# Usage: android_bp_check.sh BPFMT SOURCE_DIR LIST
# Every Android.bp under SOURCE_DIR parses and is as BPFMT writes it, and each
# module of LIST ("ANDROID_BP MODULE SOURCE..." lines, written by CMake) names
# in its srcs exactly the sources CMake compiles into the same library.
set -u
bpfmt=$1
root=$2
list=$3
status=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

for bp in $(cd "$root" && find . \( -name '.git' -o -name 'build*' \) -prune -o \
                -name Android.bp -print | sort); do
    if ! "$bpfmt" -d "$root/$bp" >"$tmp/diff" 2>&1; then
        echo "$bp does not parse:"; cat "$tmp/diff"; status=1
    elif [ -s "$tmp/diff" ]; then
        echo "$bp is not as bpfmt writes it:"; cat "$tmp/diff"; status=1
    fi
done

# The srcs of one module of a file in bpfmt's layout.
srcs_of() {
    awk -v module="$2" '
        /^[a-z_]+ \{$/ { name = ""; srcs = ""; inSrcs = 0 }
        /^    name: "/ { split($0, q, "\""); name = q[2] }
        /^    srcs: \["/ { split($0, q, "\""); srcs = q[2] "\n" }
        /^    srcs: \[$/ { inSrcs = 1; next }
        inSrcs && /^    \],$/ { inSrcs = 0 }
        inSrcs { split($0, q, "\""); srcs = srcs q[2] "\n" }
        /^\}$/ && name == module { printf "%s", srcs }
    ' "$1"
}

while read -r bp module sources; do
    printf '%s\n' $sources | sort >"$tmp/cmake"
    srcs_of "$root/$bp" "$module" | sort >"$tmp/bp"
    if ! diff -u "$tmp/cmake" "$tmp/bp" >"$tmp/diff"; then
        echo "$bp: the srcs of $module differ from what CMake compiles (- CMake, + Android.bp):"
        cat "$tmp/diff"; status=1
    fi
done <"$list"
exit $status

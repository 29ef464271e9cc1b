#!/usr/bin/env bash
# Keeps the Android.bp files in step with the tree that CMake builds:
#  - each is canonical under `bpfmt -d` (blueprint-tools);
#  - Soong accepts each module: its type, and the name and type of every property, as Debian's
#    Soong reads them (scripts/soong-check/; a property of the allow-list there is only noted);
#  - every file and folder it names exists (srcs, data, version_script, dictionary, include
#    folders, corpus folders), with no globs but a corpus's FOLDER/*, and no paths out of the
#    module's folder;
#  - every C/C++ source under its folder is built by one of its modules, or listed on a
#    "// host-only: FILE" line of it (built by CMake only);
#  - every module it refers to is defined by an Android.bp of the tree or is a platform library;
#  - a version_script is the export map that the CMakeLists.txt beside it links with;
#  - the tool's version is the project's;
#  - every test a TEST_MAPPING names is a cc_test of the tree.
#   scripts/check-android-bp.sh [ROOT]
# TOLVEN_SOONG_CHECK names a built soong-check (ctest gives the one CMake builds); without it, it
# is built here first.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=${1:-$here/..}
soong_check=${TOLVEN_SOONG_CHECK:+$(realpath "$TOLVEN_SOONG_CHECK")}
cd "$root"

# Libraries of the device's platform and of the modem vendor, not built from this tree.
platform_modules=" libbase libc++ libcutils libdiag libjsoncpp liblog libtolven_utils libutils libziparchive "

command -v bpfmt >/dev/null || {
    echo "check-android-bp: bpfmt not found (scripts/install-deps.sh base)" >&2
    exit 1
}

mapfile -t files < <(find . \( -name .git -o -path './build*' \) -prune -o -name Android.bp -print |
    sed 's|^\./||' | sort)
[ ${#files[@]} -gt 0 ] || { echo "check-android-bp: no Android.bp under $root" >&2; exit 1; }
mapfile -t mappings < <(find . \( -name .git -o -path './build*' \) -prune -o -name TEST_MAPPING -print |
    sed 's|^\./||' | sort)

if [ -z "$soong_check" ]; then
    soong_dir=$(mktemp -d)
    trap 'rm -rf "$soong_dir"' EXIT
    soong_check=$soong_dir/soong-check
    "$here/soong-check/build.sh" "$soong_check" || exit 1
fi

problems=0
problem() {
    echo "$1: $2" >&2
    problems=$((problems + 1))
}

# One line per string value: FILE<TAB>MODULE<TAB>PROPERTY<TAB>VALUE, where MODULE is the module's
# type and the PROPERTY "name" gives its name. Reads only the layout bpfmt leaves; anything else
# is reported, so that a construct this check does not understand cannot hide a path.
parse() {
    awk -v file="$1" '
        function strings(text, key,    s) {
            while (match(text, /"([^"\\]|\\.)*"/)) {
                s = substr(text, RSTART + 1, RLENGTH - 2)
                printf "%s\t%s\t%s\t%s\n", file, type, key, s
                text = substr(text, RSTART + RLENGTH)
            }
        }
        function bad() {
            printf "%s\t-\t!\tline %d not understood: %s\n", file, NR, $0
        }
        /^[ \t]*(\/\/.*)?$/ { next }
        list != "" {
            if ($0 ~ /^[ \t]*\],?$/) list = ""
            else if ($0 ~ /^[ \t]*"([^"\\]|\\.)*",$/) strings($0, list)
            else bad()
            next
        }
        depth == 0 {
            if (match($0, /^[a-z_]+ \{$/)) { type = $1; depth = 1 } else bad()
            next
        }
        /^[ \t]*\},?$/ { depth--; next }
        match($0, /^[ \t]*[a-z_0-9]+: /) {
            key = $1
            sub(/:$/, "", key)
            rest = substr($0, RLENGTH + 1)
            if (rest == "[") list = key
            else if (rest == "{") depth++
            else if (rest ~ /^\[.*\],$/ || rest ~ /^"([^"\\]|\\.)*",$/) strings(rest, key)
            else if (rest !~ /^(true|false|[0-9]+),$/) bad()
            next
        }
        { bad() }
        END { if (depth != 0 || list != "") printf "%s\t-\t!\tunterminated module\n", file }
    ' "$1"
}

records=$(for f in "${files[@]}"; do parse "$f"; done)
bad_lines=$(awk -F'\t' '$3 == "!"' <<<"$records")
[ -z "$bad_lines" ] || while IFS=$'\t' read -r f _ _ msg; do problem "$f" "$msg"; done <<<"$bad_lines"
defined=" $(awk -F'\t' '$3 == "name" {print $4}' <<<"$records" | tr '\n' ' ') "
version=$(sed -n 's/^project([a-z_]* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

for f in "${files[@]}"; do
    diff=$(bpfmt -d "$f" 2>&1) || true
    [ -z "$diff" ] || problem "$f" "not as bpfmt leaves it (bpfmt -w $f):"$'\n'"$diff"
    dir=$(dirname "$f")
    listed=" "
    while IFS=$'\t' read -r _ _ key value; do
        case $key in
            srcs | exclude_srcs | data | version_script | dictionary)
                if [[ $value == *'*'* || $value == ../* || $value == */../* ]]; then
                    problem "$f" "$key: '$value' must name one file inside $dir/"
                elif [ ! -f "$dir/$value" ]; then
                    problem "$f" "$key: $dir/$value does not exist"
                fi
                [ "$key" != srcs ] || listed+="$dir/$value "
                if [ "$key" = version_script ] && [ -f "$dir/CMakeLists.txt" ] &&
                    ! grep -qF "$value" "$dir/CMakeLists.txt"; then
                    problem "$f" "version_script $value is not the map $dir/CMakeLists.txt links"
                fi ;;
            corpus)
                folder=${value%/\*}
                if [[ $value != */\* || $folder == *'*'* || $folder == .. || $folder == ../* ||
                    $folder == */../* ]]; then
                    problem "$f" "corpus: '$value' must be FOLDER/* with the folder inside $dir/"
                elif [ -z "$(ls -A "$dir/$folder" 2>/dev/null)" ]; then
                    problem "$f" "corpus: $dir/$folder is not a folder of seeds"
                fi ;;
            local_include_dirs | export_include_dirs | export_system_include_dirs)
                [ -d "$dir/$value" ] || problem "$f" "$key: $dir/$value is not a folder" ;;
            include_dirs)
                problem "$f" "include_dirs names folders from the top of the platform tree; use a header library" ;;
            defaults | header_libs | shared_libs | static_libs | whole_static_libs)
                [[ $defined == *" $value "* || $platform_modules == *" $value "* ]] ||
                    problem "$f" "$key: no module '$value' in the tree or the platform" ;;
            cflags)
                if [[ $value == -DTOLVEN_DIAG_TOOL_VERSION=* ]] &&
                    [ "$value" != "-DTOLVEN_DIAG_TOOL_VERSION=\\\"$version\\\"" ]; then
                    problem "$f" "$value: the project's version is $version"
                fi ;;
        esac
    done < <(awk -F'\t' -v f="$f" '$1 == f && $3 != "!"' <<<"$records")

    # Sources that only CMake builds, one "// host-only: FILE (why)" line each.
    host_only=" "
    while read -r value; do
        if [[ -z $value || $value == *'*'* || $value == ../* || $value == */../* ]]; then
            problem "$f" "host-only: '$value' must name one file inside $dir/"
        elif [ ! -f "$dir/$value" ]; then
            problem "$f" "host-only: $dir/$value does not exist"
        elif [[ $listed == *" $dir/$value "* ]]; then
            problem "$f" "$dir/$value is host-only and in the srcs of a module"
        fi
        host_only+="$dir/$value "
    done < <(sed -n 's|^// host-only:[ ]*\([^ ]*\).*|\1|p' "$f")

    # Sources below this folder, but not below another Android.bp's folder, must be built here.
    while read -r src; do
        owner=$(dirname "$src")
        while [ ! -f "$owner/Android.bp" ]; do owner=$(dirname "$owner"); done
        [ "$owner" != "$dir" ] || [[ $listed == *" $src "* || $host_only == *" $src "* ]] ||
            problem "$f" "$src is not in the srcs of any module, nor on a host-only line"
    done < <(find "$dir" \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' \) | sort)
done

# Soong's own messages (FILE:LINE:COL: ...) are problems; its notes pass through.
{ soong_errors=$("$soong_check" "${files[@]}" "${mappings[@]}" 2>&1 >&3) && status=0 || status=$?; } 3>&1
if [ -n "$soong_errors" ]; then
    echo "$soong_errors" >&2
    problems=$((problems + $(wc -l <<<"$soong_errors")))
elif [ "$status" -ne 0 ]; then
    problem "$soong_check" "exit status $status"
fi

names=$(awk -F'\t' '$3 == "name" {print $4}' <<<"$records" | sort | uniq -d)
[ -z "$names" ] || problem "Android.bp" "modules defined twice: $names"

[ "$problems" -eq 0 ] || { echo "check-android-bp: $problems problem(s)" >&2; exit 1; }
echo "check-android-bp: ${#files[@]} Android.bp files and ${#mappings[@]} TEST_MAPPING match the tree"

#!/bin/bash
# The README's example, built as the README says and run: what a new user types has to work.
#   readme_test.sh README COMPILER INCLUDE_DIR LIBRARY WRAP_LIST
set -euo pipefail
readme=$1 compiler=$2 include=$3 library=$4 wraps=$5
if ! chrt -f 1 unshare --mount --net true 2>/dev/null; then
    printf '%s: Skipped\nno right to real-time priorities and namespaces\n' "${0##*/}"
    exit 77
fi

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
sed -n '/^```cpp$/,/^```$/p' "$readme" | sed '1d;$d' >"$dir/app.cpp"
mapfile -t options < <(sed -n 's/^[A-Za-z_][A-Za-z_0-9]*$/-Wl,--wrap=&/p' "$wraps")
"$compiler" -std=c++20 -Wall -Wextra -Werror -I"$include" "$dir/app.cpp" "${options[@]}" \
    "$library" -Wl,-rpath,"$(dirname "$library")" -o "$dir/app"
printed=$(cd "$dir" && unshare --mount --net sh -c \
    'mount -t tmpfs none /run && mkdir /run/netns && exec '"$dir"'/app')
echo "$printed"
[[ $printed == "application priority 5, FIFO, 0 s after start-up, ticking" ]]

#!/bin/bash
# The lines of the README and of the porting guide, run as they stand: what a new user types has to
# work.
#   readme_test.sh SOURCE_TREE
set -euo pipefail
if ! chrt -f 1 unshare --mount --net true 2>/dev/null; then
    printf '%s: Skipped\nno right to real-time priorities and namespaces\n' "${0##*/}"
    exit 77
fi

# block FILE LANGUAGE NUMBER
block() {
    awk -v start="\`\`\`$2" -v number="$3" '
        $0 == start { on = --number == 0; next }
        /^```/ { on = 0 }
        on' "$1"
}

HOME=$(mktemp -d)
trap 'rm -rf "$HOME"' EXIT
export HOME
mkdir "$HOME/source"
tar -C "$1" --exclude=./build --exclude=./.git -cf - . | tar -C "$HOME/source" -xf -
cd "$HOME/source"

# expect_running WHAT   `app`, run by the README's last line
expect_running() {
    local printed
    printed=$(bash -c "$(tail -n 1 "$HOME/source/lines")")
    echo "$1: $printed"
    [[ $printed == "application priority 5, FIFO, 0 s after start-up, ticking" ]]
}

block README.md cpp 1 >app.cpp
block README.md sh 2 >lines
bash -e lines >log 2>&1 || {
    cat log
    exit 1
}
expect_running "the five lines"
eval "$(grep ^export lines)"

export CXXFLAGS="-Wall -Wextra -Werror"
for number in 1 2; do
    rm app
    block README.md make $number >Makefile
    make -s
    expect_running "makefile $number"
    rm app.o
done
block docs/porting.md make 2 >Makefile
make -s OBJECTS=app.o

mkdir "$HOME/with-cmake"
{
    printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(app CXX)' 'add_executable(app app.cpp)'
    block README.md cmake 1
} >"$HOME/with-cmake/CMakeLists.txt"
cp app.cpp "$HOME/with-cmake"
cd "$HOME/with-cmake"
cmake -DCMAKE_PREFIX_PATH="$HOME/zelkernel" . >log && cmake --build . >>log || {
    cat log
    exit 1
}
expect_running "CMake"

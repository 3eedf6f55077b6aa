#!/usr/bin/env bash
# Uses the library as another project does, and holds that its two programs work: the README's first
# program, in C99, appends two records, and a C++20 program reads them back. ctest runs it.
#
#   outside_project.sh WAY REPOSITORY BUILD-TREE
#
# WAY is find_package or pkg-config (of an installed folder, which is moved before it is used),
# add_subdirectory or FetchContent (of this repository), or tool (the installed k9repl).
set -euo pipefail
way="$1" repository="$2" tree="$3"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# Nothing but the way under test may lead to the libraries.
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
first_program="$repository/examples/first_storage.c"
project="$repository/tests/install/project"

fail() {
    echo "outside_project.sh: $*" >&2
    exit 1
}

# install_and_move: lays everything down and moves the folder to "$work/place".
install_and_move() {
    cmake --install "$tree" --prefix "$work/first place" >/dev/null
    mv "$work/first place" "$work/place"
}

# libraries_of <installed folder>: where its libraries lie, which differs from system to system.
libraries_of() {
    dirname "$(find "$1" -name libK9eReplStorage.so.1)"
}

build_by_cmake() {
    cmake -S "$project" -B "$work/build" -G Ninja --no-warn-unused-cli \
        -DCMAKE_BUILD_TYPE=Debug "-DWAY=$way" "-DREPOSITORY=$repository" \
        "-DFIRST_PROGRAM=$first_program" "-DCMAKE_PREFIX_PATH=$work/place" >/dev/null
    cmake --build "$work/build" >/dev/null
}

build_by_pkg_config() {
    local libraries
    local -a flags
    libraries="$(libraries_of "$work/place")"
    read -r -a flags < <(PKG_CONFIG_PATH="$libraries/pkgconfig" pkg-config --cflags --libs k9erepl)
    mkdir "$work/build"
    cc -std=c99 -pedantic -Wall -Werror "$first_program" "${flags[@]}" \
        "-Wl,-rpath,$libraries" -o "$work/build/client_c"
    c++ -std=c++20 -pedantic -Wall -Werror "$project/client.cpp" "${flags[@]}" \
        "-Wl,-rpath,$libraries" -o "$work/build/client_cpp"
}

run_clients() {
    local file="$work/data.edb" printed
    printed="$("$work/build/client_c" "file=$file")"
    [ "$printed" = $'1: hello\n2: replicated world' ] || fail "the C program printed: $printed"
    printed="$("$work/build/client_cpp" "$file")"
    [ "$printed" = $'hello\nreplicated world' ] || fail "the C++ program printed: $printed"
}

run_tool() {
    local conn="file=$work/data.edb" tool="$work/place/bin/k9repl" printed
    printf 'one\ntwo\n' | "$tool" append --create --conn "$conn" 2>"$work/messages" ||
        fail "append: $(cat "$work/messages")"
    printed="$("$tool" cat --conn "$conn")"
    [ "$printed" = $'one\ntwo' ] || fail "cat printed: $printed"
    # The tool found the libraries of its own folder, not those of the build tree.
    printed="$(ldd "$tool" | grep -c "$work/place")" || true
    [ "$printed" = 2 ] || fail "the tool uses other libraries: $(ldd "$tool")"
}

case "$way" in
    find_package) install_and_move; build_by_cmake; run_clients ;;
    pkg-config) install_and_move; build_by_pkg_config; run_clients ;;
    add_subdirectory | FetchContent) build_by_cmake; run_clients ;;
    tool) install_and_move; run_tool ;;
    *) fail "unknown way '$way'" ;;
esac

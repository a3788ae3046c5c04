#!/bin/sh
# Installs the build into a temporary prefix, builds a small program against it through
# find_package and through pkg-config, and runs both, and the installed tools, on a written
# result directory.
# usage: install_test.sh CMAKE BUILD_DIR CONSUMER_SOURCE_DIR CXX [CONSUMER_FLAGS]
set -eu
cmake=$1 build=$2 consumer=$3 cxx=$4 flags=${5:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(dirname "$(find "$prefix" -name jitreader.pc)")")
for file in "$libdir/libjitreader.so" "$libdir/libjitreader.so.0" "$libdir/cmake/jitreader/jitreaderConfig.cmake" \
        "$prefix/include/jitreader/jitreader.h" "$prefix/bin/jitreader" "$prefix/bin/jitreader-sample-gen"; do
    [ -e "$file" ] || { echo "not installed: $file"; exit 1; }
done

"$prefix/bin/jitreader-sample-gen" "$work/demo" >/dev/null
methods=$("$prefix/bin/jitreader" methods "$work/demo/alpha" "$work/demo/beta" --format csv | tail -n +2 | wc -l)

"$cmake" -S "$consumer" -B "$work/with-cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$flags" >/dev/null
"$cmake" --build "$work/with-cmake" >/dev/null
# shellcheck disable=SC2046,SC2086
"$cxx" $flags "$consumer/consumer.cpp" -o "$work/with-pkg-config" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs jitreader)

for program in "$work/with-cmake/consumer" "$work/with-pkg-config"; do
    out=$(LD_LIBRARY_PATH="$libdir" "$program" "$work/demo/alpha" "$work/demo/beta")
    case "$out" in
    "$methods methods, the first "?*) ;;
    *) echo "$program printed '$out'; the installed jitreader counts $methods methods"; exit 1 ;;
    esac
done

# The Python module, where the build has it (not under the sanitizers), imported from the prefix.
site=$prefix/lib/python3/dist-packages
if [ -d "$site/jitreader" ]; then
    counted=$(cd "$work" && PYTHONPATH="$site" /usr/bin/python3 -c \
        'import sys, jitreader; print(len(jitreader.Resolver(sys.argv[1:]).methods()), jitreader.__file__)' \
        "$work/demo/alpha" "$work/demo/beta")
    case "$counted" in
    "$methods $site/jitreader/__init__.py") ;;
    *) echo "the installed Python module printed '$counted'; the installed jitreader counts $methods methods"; exit 1 ;;
    esac
fi
echo "installed, and built against with CMake and pkg-config: $methods methods"

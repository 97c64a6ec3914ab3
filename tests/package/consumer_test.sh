#!/usr/bin/env bash
# Installs the built library into a fresh prefix and builds a project outside the tree
# against it, once with find_package and once with pkg-config, then runs both programs.
# A fourth argument ON says the library was built with image assembly, which the
# consumer then uses too.
set -euo pipefail
build=$1 source=$2 work=$3 image=${4:-OFF}
image_flag=()
[ "$image" = ON ] && image_flag=(-DCONSUMER_WITH_IMAGE)
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
"$(dirname "$0")/headers_match_library.sh" "$prefix/include" "$(find "$prefix" -name 'libztProxyProtocol.so.*.*' | head -n 1)"

cmake -S "$source" -B "$work/with-cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCONSUMER_WITH_IMAGE="$image" >/dev/null
cmake --build "$work/with-cmake" >/dev/null
out=$("$work/with-cmake/consumer")
[ "$out" = "consumer ok 7" ] || { echo "find_package consumer printed: $out"; exit 1; }

pc=$(dirname "$(find "$prefix" -name ztProxyProtocol.pc | head -n 1)")
libdir=$(PKG_CONFIG_PATH=$pc pkg-config --variable=libdir ztProxyProtocol)
# shellcheck disable=SC2046
c++ -std=c++17 "${image_flag[@]}" "$source/main.cpp" $(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs ztProxyProtocol) \
    -o "$work/with-pkg-config"
out=$(LD_LIBRARY_PATH=$libdir "$work/with-pkg-config")
[ "$out" = "consumer ok 7" ] || { echo "pkg-config consumer printed: $out"; exit 1; }

# One version everywhere: the headers, the pkg-config file and the CMake package.
version=$(sed -n 's/^#define ZT_PROXY_VERSION "\(.*\)"$/\1/p' "$prefix/include/ztProxyConfig.h")
[ -n "$version" ] && [ "$(PKG_CONFIG_PATH=$pc pkg-config --modversion ztProxyProtocol)" = "$version" ] &&
    grep -q "PACKAGE_VERSION \"$version\"" "$(find "$prefix" -name ztProxyProtocolConfigVersion.cmake)" ||
    { echo "the versions of the headers, pkg-config and CMake package differ"; exit 1; }

# The installed tool starts from the prefix without help: it finds its libraries by RPATH.
if [ -x "$prefix/bin/ztproxy" ]; then
    out=$(env -u LD_LIBRARY_PATH "$prefix/bin/ztproxy" --version | head -1)
    [ "$out" = "ztproxy $version" ] || { echo "installed ztproxy --version printed: $out"; exit 1; }
fi

# The library carries its major version in its name.
ls "$libdir"/libztProxyProtocol.so.0 >/dev/null
echo "installed package used through find_package and pkg-config"

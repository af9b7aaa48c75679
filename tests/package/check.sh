#!/usr/bin/env bash
# The Debian package as a user gets it: builds build/widmo_<version>_*.deb
# (the `package` target: CPack) when it is missing or older than a program
# or a file it holds, then checks
#   - its control data: name, version, Depends from dpkg-shlibdeps, no
#     maintainer scripts or conffiles (so `apt remove` leaves only the user's
#     own settings in ~/.config, ~/.cache, ~/.local/share), nothing outside /usr;
#   - its contents: the four programs, desktop entries, metainfo, icons, man
#     pages, bash completion, README, copyright and changelog;
#   - lintian (no error; warnings only those accepted below), desktop-file-validate,
#     appstreamcli validate --no-net;
#   - a clean root: the package unpacked with dpkg -x, every library of every
#     program resolves (ldd) and each library a program links directly belongs
#     to a package in Depends (dpkg -S); the unpacked programs answer --version
#     and the unpacked widmo-analyze writes the same outputs as the build tree's.
#   check.sh BUILD_DIR VERSION BUILD_TREE_WIDMO_ANALYZE
set -u
build=$1 version=$2 built_analyze=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "package: $*"; failures=$((failures + 1)); }
need() { command -v "$1" >/dev/null || { echo "package: $1 missing (scripts/install-deps.sh installs it)"; exit 1; }; }
for tool in dpkg-deb dpkg-shlibdeps lintian desktop-file-validate appstreamcli python3; do need "$tool"; done

arch=$(dpkg --print-architecture)
deb="$build/widmo_${version}_${arch}.deb"
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
if [ ! -f "$deb" ] || [ "$built_analyze" -nt "$deb" ] ||
    [ -n "$(find "$build/app" "$build/packaging" "$source_dir/app" "$source_dir/packaging" \
        "$source_dir/README.md" -newer "$deb" -type f -print -quit)" ]; then
    cmake --build "$build" --target package >"$work/cpack.log" 2>&1 ||
        { cat "$work/cpack.log"; echo "package: building the package failed"; exit 1; }
fi
[ -f "$deb" ] || { echo "package: no $deb"; exit 1; }

# Control data.
dpkg-deb -f "$deb" Package Version Architecture Section Depends >"$work/control"
grep -qx "Package: widmo" "$work/control" || fail "package name: $(head -1 "$work/control")"
grep -qx "Version: $version" "$work/control" || fail "version is not $version"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libstdc++6 libqt6core6 libqt6gui6 libqt6widgets6 libsndfile1 libfftw3-single3; do
    [[ ", $depends," == *", $lib "* || ", $depends," == *", $lib,"* ]] ||
        fail "Depends lacks $lib: $depends"
done
dpkg-deb --ctrl-tarfile "$deb" | tar -t | sed 's|^\./||' | grep -v '^$' | sort >"$work/control-files"
[ "$(paste -sd' ' "$work/control-files")" = "control md5sums" ] ||
    fail "control files other than control and md5sums: $(paste -sd' ' "$work/control-files")"

# Contents.
dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's|^\./|/|' >"$work/contents"
grep -vE '^/usr(/|$)' "$work/contents" | grep -vx '/' && fail "files outside /usr"
expected=(
    /usr/bin/widmo /usr/bin/widmo-studio /usr/bin/widmo-voice /usr/bin/widmo-analyze
    /usr/share/applications/widmo.desktop /usr/share/applications/widmo-studio.desktop
    /usr/share/applications/widmo-voice.desktop
    /usr/share/metainfo/invalid.widmo.Widmo.metainfo.xml
    /usr/share/icons/hicolor/scalable/apps/widmo.svg
    /usr/share/man/man1/widmo.1.gz /usr/share/man/man1/widmo-studio.1.gz
    /usr/share/man/man1/widmo-voice.1.gz /usr/share/man/man1/widmo-analyze.1.gz
    /usr/share/bash-completion/completions/widmo-analyze
    /usr/share/doc/widmo/README.md /usr/share/doc/widmo/copyright /usr/share/doc/widmo/changelog.gz
)
# The rendered icons, when the build had rsvg-convert (install-deps.sh installs it).
if command -v rsvg-convert >/dev/null; then
    for size in 16 22 24 32 48 64 128 256 512; do
        expected+=("/usr/share/icons/hicolor/${size}x${size}/apps/widmo.png")
    done
fi
for path in "${expected[@]}"; do
    grep -qx "$path" "$work/contents" || fail "not in the package: $path"
done

# lintian: no error, and no warning but the accepted ones (each with its
# reason; none at present). Its infos (lintian -I) are accepted too:
#   binary-has-unneeded-section .comment   CPack strips with plain `strip`, which
#       keeps the compiler's one-line note; dh_strip's extra pass is not worth a
#       custom strip step for a few hundred bytes.
#   hardening-no-bindnow, hardening-no-fortify-functions   the project's own build
#       flags, not dpkg-buildflags' (the binaries are PIE and have RELRO).
#   spelling-error-in-binary ofThe   two of the program's messages stored side by
#       side ("... a sample rate of" and "The sample rate converter ..."), not a typo.
accepted=()
lintian --tag-display-limit 0 "$deb" >"$work/lintian" 2>&1
lintian_status=$?
grep -E '^E: ' "$work/lintian" && fail "lintian reports errors"
accepted_re='^$'
[ ${#accepted[@]} -eq 0 ] || accepted_re=": ($(IFS='|'; echo "${accepted[*]}"))( |$)"
grep -E '^W: ' "$work/lintian" | grep -vE "$accepted_re" &&
    fail "lintian warnings not among the accepted ones"
[ "$lintian_status" -eq 0 ] || fail "lintian exited with $lintian_status: $(cat "$work/lintian")"

# The clean root.
root="$work/root"
dpkg -x "$deb" "$root"
for desktop in "$root"/usr/share/applications/*.desktop; do
    desktop-file-validate "$desktop" >"$work/dfv" 2>&1 && [ ! -s "$work/dfv" ] ||
        fail "desktop-file-validate $(basename "$desktop"): $(cat "$work/dfv")"
done
# --no-net: the CI machine reaches only Debian's mirror. No warning is
# accepted (appstreamcli 0.16 asks for no screenshot or URL in a desktop
# application; it notes the id's TLD as unknown, an info: see the metainfo).
appstreamcli validate --no-net "$root"/usr/share/metainfo/*.metainfo.xml >"$work/as" 2>&1 ||
    fail "appstreamcli validate: $(cat "$work/as")"
grep -E '^(E|W): ' "$work/as" && fail "appstreamcli: errors or warnings"

for exe in "$root"/usr/bin/*; do
    name=$(basename "$exe")
    ldd "$exe" >"$work/ldd" 2>&1 || fail "ldd $name: $(cat "$work/ldd")"
    grep 'not found' "$work/ldd" && fail "$name: libraries that do not resolve"
    # Libraries it links directly: each must come from a package in Depends
    # (the others come with those packages' own Depends).
    for lib in $(objdump -p "$exe" | awk '$1 == "NEEDED" { print $2 }'); do
        # "libx.so.1 => /path (0x...)", or for the loader "/lib64/ld-linux-x86-64.so.2 (0x...)".
        path=$(awk -v lib="$lib" '$1 == lib && $2 == "=>" { print $3 }
                                  substr($1, length($1) - length(lib)) == "/" lib { print $1 }' \
                   "$work/ldd" | head -1)
        [ -n "$path" ] || { fail "$name: $lib not resolved"; continue; }
        owner=$(dpkg -S "$(readlink -f "$path")" 2>/dev/null | head -1 | cut -d: -f1)
        [ -n "$owner" ] || owner=$(dpkg -S "$path" 2>/dev/null | head -1 | cut -d: -f1)
        [ -n "$owner" ] || { fail "$name: $lib ($path) belongs to no package"; continue; }
        [[ ", $depends," == *", $owner "* || ", $depends," == *", $owner,"* ]] ||
            fail "$name: $lib comes from $owner, which Depends does not name"
    done
    out=$(env -u DISPLAY -u WAYLAND_DISPLAY "$exe" --version 2>&1)
    [ "$out" = "$name $version" ] || fail "unpacked $name --version: '$out'"
done

# The unpacked widmo-analyze against the build tree's: the same bytes for every output.
python3 - "$work/tone.wav" <<'PY' || fail "no test file"
import array, math, sys, wave
rate = 48000
data = array.array("h", (int(9000 * math.sin(2 * math.pi * 1000 * k / rate) +
                             3000 * math.sin(2 * math.pi * 6300 * k / rate)) for k in range(rate * 2)))
with wave.open(sys.argv[1], "wb") as w:
    w.setnchannels(1); w.setsampwidth(2); w.setframerate(rate); w.writeframes(data.tobytes())
PY
for which in built unpacked; do
    exe=$built_analyze
    [ "$which" = unpacked ] && exe="$root/usr/bin/widmo-analyze"
    mkdir -p "$work/$which"
    "$exe" --summary --spectrum --bands 3 --spectrogram --no-progress -o "$work/$which" \
        "$work/tone.wav" >"$work/$which/summary.jsonl" 2>"$work/$which.err" ||
        fail "$which widmo-analyze failed: $(cat "$work/$which.err")"
done
# The summary and three files: NAME.png, NAME.spectrum.csv, NAME.bands3.csv.
[ "$(find "$work/built" -type f | wc -l)" -eq 4 ] && [ -s "$work/built/summary.jsonl" ] ||
    fail "the build tree's widmo-analyze wrote $(find "$work/built" -type f | wc -l) files, not 4"
diff -r "$work/built" "$work/unpacked" >/dev/null ||
    fail "the unpacked widmo-analyze's outputs differ from the build tree's"

echo "package: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB, installed size" \
    "$(dpkg-deb -f "$deb" Installed-Size) KiB"
[ "$failures" -eq 0 ] && echo "package: all checks passed"
[ "$failures" -eq 0 ]

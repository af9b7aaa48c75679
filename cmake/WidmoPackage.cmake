# Everything a Debian system expects beside the executables (icons, manual
# pages, shell completion, AppStream metadata, the package's documents) and
# the package itself:
#   cmake --build build --target package      ->  build/widmo_<version>_<arch>.deb
# tests/package/check.sh checks the result (lintian, validators, a clean root).
include(GNUInstallDirs)

set(pkg_src "${PROJECT_SOURCE_DIR}/packaging")
set(pkg_out "${PROJECT_BINARY_DIR}/packaging")
set(WIDMO_PACKAGE_CONTACT "Widmo maintainers <maintainers@users.noreply.c-seed-1cd4d90e.example>")
set(doc_dir "${CMAKE_INSTALL_DATADIR}/doc/widmo")
set(generated_files)

# Icons: PNGs in the hicolor sizes rendered from the SVG when rsvg-convert
# (librsvg2-bin) is there; the SVG itself goes to scalable/apps in any case
# (app/CMakeLists.txt). Menus that take only PNGs (older panels, some docks)
# need the rendered sizes; scripts/install-deps.sh installs the tool.
find_program(WIDMO_RSVG_CONVERT rsvg-convert)
if(WIDMO_RSVG_CONVERT)
    foreach(size 16 22 24 32 48 64 128 256 512)
        set(png "${pkg_out}/icons/${size}x${size}/widmo.png")
        add_custom_command(OUTPUT "${png}"
            COMMAND "${CMAKE_COMMAND}" -E make_directory "${pkg_out}/icons/${size}x${size}"
            COMMAND "${WIDMO_RSVG_CONVERT}" -w ${size} -h ${size} -o "${png}"
                    "${PROJECT_SOURCE_DIR}/app/widmo.svg"
            DEPENDS "${PROJECT_SOURCE_DIR}/app/widmo.svg" VERBATIM)
        list(APPEND generated_files "${png}")
        install(FILES "${png}"
                DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps")
    endforeach()
else()
    message(STATUS "rsvg-convert not found (librsvg2-bin): only the scalable icon is installed")
endif()

# Manual pages, configured with the version and date, compressed as Debian
# wants them (gzip -n: no time stamp, the same bytes every build).
set(man_pages)
configure_file("${pkg_src}/man/widmo-analyze.1.in" "${pkg_out}/man/widmo-analyze.1" @ONLY)
list(APPEND man_pages widmo-analyze)
set(see_widmo ".BR widmo\\-studio (1),\n.BR widmo\\-voice (1),\n.BR widmo\\-analyze (1)")
set(see_studio ".BR widmo (1),\n.BR widmo\\-voice (1),\n.BR widmo\\-analyze (1)")
set(see_voice ".BR widmo (1),\n.BR widmo\\-studio (1),\n.BR widmo\\-analyze (1)")
foreach(product widmo widmo-studio widmo-voice)
    set(WIDMO_PROGRAM ${product})
    string(TOUPPER ${product} WIDMO_PROGRAM_UPPER)
    string(REPLACE "-" "\\-" WIDMO_PROGRAM_ESCAPED ${product})
    set(WIDMO_PROGRAM_SYNOPSIS_FILES "")
    set(WIDMO_PROGRAM_FILE_OPTION "")
    set(WIDMO_PROGRAM_FILE_EXAMPLE "")
    if(product STREQUAL "widmo")
        set(WIDMO_PROGRAM_DISPLAY_NAME "Widmo")
        set(WIDMO_PROGRAM_SUMMARY "real-time spectrum analyser and level meter")
        set(WIDMO_PROGRAM_DESCRIPTION "It shows a spectrum chart with a logarithmic or linear \
frequency axis and a dB or linear level axis, a dBFS level meter, and a measuring cursor that \
reads frequency, note name and level. The chart can be saved as a PNG image or its data as CSV.
.PP
Files named on the command line are ignored;
.BR widmo\\-studio (1)
imports them.")
        set(WIDMO_PROGRAM_SEE_ALSO "${see_widmo}")
    elseif(product STREQUAL "widmo-studio")
        set(WIDMO_PROGRAM_DISPLAY_NAME "Widmo Studio")
        set(WIDMO_PROGRAM_SUMMARY "real-time spectrogram, spectrum, oscilloscope and octave RTA")
        set(WIDMO_PROGRAM_DESCRIPTION "It shows a scrolling spectrogram that keeps the whole \
recording, with the spectrum, the oscilloscope or the octave-band RTA beside it, and offers a \
recording trigger, transposed or slowed-down playback, export of the recording as WAV and \
import of audio files, and a JACK node through which other programs' sound can be routed.")
        set(WIDMO_PROGRAM_SYNOPSIS_FILES "\n[\\fIFILE\\fR...]")
        set(WIDMO_PROGRAM_FILE_OPTION ".TP
.I FILE
An audio file of any format libsndfile reads (WAV, AIFF, FLAC, Ogg Vorbis, Opus, MP3, ...)
to import into the document; the program asks first.
Of several files the first is imported and the others are named on standard error and
ignored.
A desktop's file manager hands files over this way (Open With).")
        set(WIDMO_PROGRAM_FILE_EXAMPLE ".TP
.B widmo\\-studio take1.flac
Start and offer to import
.IR take1.flac .")
        set(WIDMO_PROGRAM_SEE_ALSO "${see_studio},\n.BR jackd (1)")
    else()
        set(WIDMO_PROGRAM_DISPLAY_NAME "Widmo Voice")
        set(WIDMO_PROGRAM_SUMMARY "real-time voice analyser with the closed quotient of an EGG")
        set(WIDMO_PROGRAM_DESCRIPTION "It shows the voice signal, its spectrum and level, and \
with an electroglottograph on the second input channel the closed quotient of the vocal folds.
.PP
Files named on the command line are ignored;
.BR widmo\\-studio (1)
imports them.")
        set(WIDMO_PROGRAM_SEE_ALSO "${see_voice}")
    endif()
    configure_file("${pkg_src}/man/widmo-window.1.in" "${pkg_out}/man/${product}.1" @ONLY)
    list(APPEND man_pages ${product})
endforeach()
foreach(page ${man_pages})
    add_custom_command(OUTPUT "${pkg_out}/man/${page}.1.gz"
        COMMAND gzip -9 -n -f -k "${pkg_out}/man/${page}.1"
        DEPENDS "${pkg_out}/man/${page}.1" VERBATIM)
    list(APPEND generated_files "${pkg_out}/man/${page}.1.gz")
    install(FILES "${pkg_out}/man/${page}.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endforeach()

# AppStream metadata (validated by tests/package/check.sh).
configure_file("${pkg_src}/invalid.widmo.Widmo.metainfo.xml.in"
               "${pkg_out}/invalid.widmo.Widmo.metainfo.xml" @ONLY)
install(FILES "${pkg_out}/invalid.widmo.Widmo.metainfo.xml"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo")

# Bash completion, loaded on demand by bash-completion under the command's name.
install(FILES "${pkg_src}/completion/widmo-analyze.bash"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
        RENAME widmo-analyze)

# /usr/share/doc/widmo: the README, the licence in Debian's copyright format
# and the changelog (a native package's: changelog.gz).
execute_process(COMMAND date -u -R -d "${WIDMO_RELEASE_DATE} 12:00"
                OUTPUT_VARIABLE WIDMO_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE)
set(CPACK_PACKAGE_CONTACT "${WIDMO_PACKAGE_CONTACT}")
configure_file("${pkg_src}/changelog.in" "${pkg_out}/changelog" @ONLY)
add_custom_command(OUTPUT "${pkg_out}/changelog.gz"
    COMMAND gzip -9 -n -f -k "${pkg_out}/changelog"
    DEPENDS "${pkg_out}/changelog" VERBATIM)
list(APPEND generated_files "${pkg_out}/changelog.gz")
install(FILES "${PROJECT_SOURCE_DIR}/README.md" "${pkg_src}/copyright" "${pkg_out}/changelog.gz"
        DESTINATION "${doc_dir}")

add_custom_target(widmo_package_files ALL DEPENDS ${generated_files})

# The package. Its Depends come from dpkg-shlibdeps (dpkg-dev) reading the
# executables: every shared library they link, with its package's version.
# Qt's platform plugins are loaded at run time but ship in libqt6gui6, which
# the executables link, and that package pulls in fontconfig and its fonts.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME widmo)
set(CPACK_PACKAGE_VENDOR "The Widmo authors")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "real-time sound analyser: spectrum, spectrogram, level")
set(CPACK_PACKAGE_DESCRIPTION "\
Widmo takes sound from the microphone or any input device, computes a windowed
FFT of every analysis interval and shows the result at once: a spectrum chart,
a dBFS level meter and a measuring cursor that reads frequency, note and level.

The package holds three programs built from the same code: widmo (spectrum
and level), widmo-studio (a scrolling spectrogram with spectrum, oscilloscope
and octave-band RTA, recording trigger, playback, audio import and export, a
JACK node) and widmo-voice (voice signal and the closed quotient of an
electroglottograph), and the command widmo-analyze, which writes spectrogram
images, spectra, band levels and summaries of audio files without a window.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
include(CPack)

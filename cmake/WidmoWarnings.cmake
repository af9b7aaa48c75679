# One interface target carries the warning flags; every Widmo target links it.
add_library(widmo_warnings INTERFACE)
target_compile_options(widmo_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Wunused -Woverloaded-virtual -Wpedantic -Wnull-dereference
    -Wimplicit-fallthrough -Wzero-as-null-pointer-constant)
if(WIDMO_WERROR)
    target_compile_options(widmo_warnings INTERFACE -Werror)
endif()

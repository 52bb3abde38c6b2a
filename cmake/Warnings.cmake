# The warning flags of every target of this tree. Targets take them privately and for the build alone
# ($<BUILD_INTERFACE:korlo_warnings>), so that no user of the package is ever held to them.
add_library(korlo_warnings INTERFACE)

target_compile_options(korlo_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
    "$<$<CXX_COMPILER_ID:Clang>:-Wthread-safety;-Wreserved-identifier>"
    $<$<BOOL:${KORLO_WARNINGS_AS_ERRORS}>:-Werror>)

# The warning flags of every target of this tree. Targets take them privately and for the build alone
# ($<BUILD_INTERFACE:korlo_warnings>), so that no user of the package is ever held to them.
add_library(korlo_warnings INTERFACE)

# Of instrumented code g++ warns about much that is not so, in the standard library's own headers too.
set(korlo_warnings_as_errors ${KORLO_WARNINGS_AS_ERRORS})
if(KORLO_SANITIZE)
    set(korlo_warnings_as_errors OFF)
endif()
target_compile_options(korlo_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${korlo_warnings_as_errors}>:-Werror>)

# GoogleTest for the tests: the system's libraries, except where those would not fit.
#
# A cross build has none for its target. A sanitized build must not share containers with code that is not sanitized:
# the address sanitizer would report overflows that are none. Both build GoogleTest from the system's sources.
if(CMAKE_CROSSCOMPILING OR KORLO_SANITIZE)
    set(googletest_source /usr/src/googletest CACHE PATH "Sources of GoogleTest")
    mark_as_advanced(googletest_source)
    if(NOT EXISTS ${googletest_source}/CMakeLists.txt)
        korlo_require(FALSE "The source of GoogleTest (${googletest_source})" "googletest")
    endif()
    set(INSTALL_GTEST OFF)
    set(BUILD_SHARED_LIBS OFF)
    add_subdirectory(${googletest_source} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    unset(BUILD_SHARED_LIBS)
    foreach(library IN ITEMS gtest gtest_main gmock)
        if(NOT TARGET GTest::${library})
            add_library(GTest::${library} ALIAS ${library})
        endif()
    endforeach()
else()
    find_package(GTest QUIET)
    korlo_require("${GTest_FOUND}" "GoogleTest" "libgtest-dev libgmock-dev")
endif()
include(GoogleTest)

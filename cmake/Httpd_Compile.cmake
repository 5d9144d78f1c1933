# Flags that every target of this project is compiled with.
add_library(httpd_compile INTERFACE)
target_include_directories(httpd_compile INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(httpd_compile INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wimplicit-fallthrough -Werror
    # Log lines name a source file as it lies in the tree, wherever it was built.
    "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

# A call of the library's own exported function goes straight to it: nobody is to put another one in
# its place, and most of the library's functions are small.
target_compile_options(httpd_compile INTERFACE -fno-semantic-interposition -fno-plt)

# gcc 12 sees overlapping copies inside std::string that are not there (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(httpd_compile INTERFACE -Wno-restrict)
endif()

if(HTTPD_SANITIZE)
    target_compile_options(httpd_compile INTERFACE
        "-fsanitize=${HTTPD_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(httpd_compile INTERFACE "-fsanitize=${HTTPD_SANITIZE}")
    # For support/uncancelled.h. ThreadSanitizer would go through all that a send offers, again and
    # again while the socket takes little of it.
    if(HTTPD_SANITIZE MATCHES "address|thread")
        target_compile_definitions(httpd_compile INTERFACE HTTPD_SEES_CALLS)
    endif()
    if(HTTPD_SANITIZE MATCHES "address")
        target_compile_definitions(httpd_compile INTERFACE HTTPD_SEES_SENDS)
    endif()
    if(HTTPD_SANITIZE MATCHES "undefined")
        # Its check of virtual tables opens a pipe to probe memory, and so reports every object once
        # the descriptors have run out, which some tests bring about.
        target_compile_options(httpd_compile INTERFACE -fno-sanitize=vptr)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # With a sanitizer's checks in between, g++ takes members of std::regex for uninitialized.
        target_compile_options(httpd_compile INTERFACE -Wno-maybe-uninitialized)
    endif()
endif()

if(HTTPD_COVERAGE)
    # Several threads count in one place: without atomic counters lines that run come out as not run.
    target_compile_options(httpd_compile INTERFACE --coverage -fprofile-update=prefer-atomic)
    target_link_options(httpd_compile INTERFACE --coverage)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # What is always in place is optimised a little even so, and g++ then no longer sees from
        # the comparison before a copy how long it can be.
        target_compile_options(httpd_compile INTERFACE -Wno-stringop-overflow)
    endif()
endif()

# One request runs through many small files.
include(CheckIPOSupported)
check_ipo_supported(RESULT HTTPD_LINK_TIME_OPTIMIZATION OUTPUT ignored_reason LANGUAGES CXX)

# A shared library of ours: versioned, and never unmapped, because a detached thread may still be
# on its way out of the library's code when the process closes it.
function(httpd_shared_library name)
    set_target_properties(${name} PROPERTIES
        VERSION "${PROJECT_VERSION}" SOVERSION "${PROJECT_VERSION_MAJOR}")
    target_link_options(${name} PRIVATE -Wl,-z,nodelete)
    if(NOT HTTPD_SANITIZE)
        target_link_options(${name} PRIVATE -Wl,-z,defs -Wl,-Bsymbolic-functions)
    endif()
    set_target_properties(${name} PROPERTIES
        INTERPROCEDURAL_OPTIMIZATION_RELEASE "${HTTPD_LINK_TIME_OPTIMIZATION}")
endfunction()

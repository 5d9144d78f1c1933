# What "cmake --install" lays down: the two libraries with their headers, the host, the bundled
# plug-ins, and what a plug-in's build needs to find them (CMake package, pkg-config).
include(CMakePackageConfigHelpers)

set(HTTPD_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/libhttpd")
set(HTTPD_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/httpd")

# The headers of httpd/ that plug-ins and hosts use; the others are the library's own.
set(HTTPD_PUBLIC_HEADERS
    export.h
    host_interface.h
    http_authenticator.h
    http_handler.h
    http_io.h
    http_io_ostreambuf.h
    http_options.h
    object_creator_t.h
    simple_creator_t.h
    websocket_handler.h
    websocket_io.h)
list(TRANSFORM HTTPD_PUBLIC_HEADERS PREPEND "${PROJECT_SOURCE_DIR}/httpd/")
install(FILES ${HTTPD_PUBLIC_HEADERS} DESTINATION "${HTTPD_INSTALL_INCLUDEDIR}/httpd")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/support/"
    DESTINATION "${HTTPD_INSTALL_INCLUDEDIR}/support"
    FILES_MATCHING PATTERN "*.h")

foreach(library httpd_support httpd)
    target_compile_features(${library} INTERFACE cxx_std_20)
    target_include_directories(${library} INTERFACE
        "$<INSTALL_INTERFACE:${HTTPD_INSTALL_INCLUDEDIR}>")
    # A host of any kind finds the second library and the plug-ins beside the first.
    set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()

install(TARGETS httpd httpd_support httpd_ace EXPORT httpd_targets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(TARGETS httpd_host RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

get_property(plugins DIRECTORY "${PROJECT_SOURCE_DIR}/plugins" PROPERTY BUILDSYSTEM_TARGETS)
foreach(plugin ${plugins})
    set_target_properties(${plugin} PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${plugin} LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
endforeach()

install(EXPORT httpd_targets
    NAMESPACE httpd::
    FILE httpd-targets.cmake
    DESTINATION "${HTTPD_INSTALL_CMAKEDIR}")
configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/httpd-config.cmake.in"
    "${PROJECT_BINARY_DIR}/httpd-config.cmake"
    INSTALL_DESTINATION "${HTTPD_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/httpd-config-version.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/httpd-config.cmake"
    "${PROJECT_BINARY_DIR}/httpd-config-version.cmake"
    DESTINATION "${HTTPD_INSTALL_CMAKEDIR}")

# pkg-config joins paths itself, so an absolute directory must not get the prefix in front.
foreach(kind LIBDIR INCLUDEDIR)
    if(kind STREQUAL "LIBDIR")
        set(directory "${CMAKE_INSTALL_LIBDIR}")
    else()
        set(directory "${HTTPD_INSTALL_INCLUDEDIR}")
    endif()
    if(IS_ABSOLUTE "${directory}")
        set(HTTPD_PC_${kind} "${directory}")
    else()
        set(HTTPD_PC_${kind} "\${prefix}/${directory}")
    endif()
endforeach()
configure_file(
    "${CMAKE_CURRENT_LIST_DIR}/httpd.pc.in" "${PROJECT_BINARY_DIR}/httpd.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/httpd.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

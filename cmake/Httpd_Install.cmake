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
    send_open_file.h
    simple_creator_t.h
    utils.h
    websocket_handler.h
    websocket_io.h
    websocket_outbox.h
    whole_body_handler.h)
list(TRANSFORM HTTPD_PUBLIC_HEADERS PREPEND "httpd/")

# Of support/, what plug-ins use of their own accord; headers that these include are added below.
set(HTTPD_PUBLIC_SUPPORT_HEADERS
    addr_string.h
    fixed_block_file_reader_t.h
    http_date.h
    http_header_value.h
    http_message.h
    http_status.h
    log.h
    mime_type.h
    uri.h)
list(TRANSFORM HTTPD_PUBLIC_SUPPORT_HEADERS PREPEND "support/")

# Adds the headers of the tree that the headers in the list include, directly or not.
function(httpd_include_closure list)
    set(todo ${${list}})
    set(all "")
    while(todo)
        list(POP_FRONT todo header)
        if(header IN_LIST all)
            continue()
        endif()
        list(APPEND all ${header})
        file(STRINGS "${PROJECT_SOURCE_DIR}/${header}" includes REGEX "^#include \"")
        foreach(line ${includes})
            string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
            list(APPEND todo ${included})
        endforeach()
    endwhile()
    set(${list} ${all} PARENT_SCOPE)
endfunction()

set(HTTPD_INSTALLED_HEADERS ${HTTPD_PUBLIC_HEADERS} ${HTTPD_PUBLIC_SUPPORT_HEADERS})
httpd_include_closure(HTTPD_INSTALLED_HEADERS)
foreach(header ${HTTPD_INSTALLED_HEADERS})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES "${PROJECT_SOURCE_DIR}/${header}"
        DESTINATION "${HTTPD_INSTALL_INCLUDEDIR}/${folder}")
endforeach()

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

# The prefix is found from where the file lies, so that "cmake --install --prefix" and a tree that
# was moved are right too; an absolute directory stands for itself.
set(HTTPD_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(HTTPD_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
set(HTTPD_PC_INCLUDEDIR "${HTTPD_INSTALL_INCLUDEDIR}")
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(HTTPD_PC_PREFIX "\${pcfiledir}/${up}")
    set(HTTPD_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(NOT IS_ABSOLUTE "${HTTPD_INSTALL_INCLUDEDIR}")
    set(HTTPD_PC_INCLUDEDIR "\${prefix}/${HTTPD_INSTALL_INCLUDEDIR}")
endif()
configure_file(
    "${CMAKE_CURRENT_LIST_DIR}/httpd.pc.in" "${PROJECT_BINARY_DIR}/httpd.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/httpd.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

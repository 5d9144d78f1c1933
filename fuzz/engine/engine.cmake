# The engine's target drives connections themselves, which the library does not export, and replaces
# poll() in all that they call: it is linked from the objects of the libraries, not with them.
file(GLOB engine_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
target_sources(engine_fuzz PRIVATE ${engine_sources}
    ${PROJECT_SOURCE_DIR}/tests/plugins/probe_plugin.cpp
    ${PROJECT_SOURCE_DIR}/tests/plugins/response_plugin.cpp
    ${PROJECT_SOURCE_DIR}/tests/plugins/websocket_probe_plugin.cpp)
foreach(library httpd_support httpd httpd_files httpd_echo httpd_basic_auth httpd_ws_echo
        httpd_ws_chat)
    target_sources(engine_fuzz PRIVATE $<TARGET_OBJECTS:${library}>)
endforeach()
target_compile_definitions(engine_fuzz PRIVATE
    HTTPD_FUZZ_ENGINE_FOLDER="${CMAKE_CURRENT_LIST_DIR}")
target_link_libraries(engine_fuzz PRIVATE httpd_compile httpd_ace ${YAJL_LIBRARY} ZLIB::ZLIB
    ${CRYPT_LIBRARY})
target_link_options(engine_fuzz PRIVATE -Wl,--wrap=poll)

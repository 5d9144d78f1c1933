# The target of the connection engine. It drives connections themselves, which the library does not
# export, and replaces poll() in all that they call: so it is linked from the objects of the
# libraries and plug-ins, and not with them.
file(GLOB engine_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
list(APPEND engine_sources
    ${CMAKE_CURRENT_LIST_DIR}/../targets/engine_fuzz.cpp
    ${PROJECT_SOURCE_DIR}/tests/plugins/probe_plugin.cpp
    ${PROJECT_SOURCE_DIR}/tests/plugins/response_plugin.cpp
    ${PROJECT_SOURCE_DIR}/tests/plugins/websocket_probe_plugin.cpp)

if(HTTPD_FUZZ)
    set(engine_target engine_fuzz)
    add_executable(engine_fuzz ${engine_sources})
    # What the checks compare says nothing of the server.
    target_compile_options(engine_fuzz PRIVATE -fno-sanitize-coverage=trace-cmp)
    target_link_options(engine_fuzz PRIVATE -fsanitize=fuzzer)
    if(TARGET fuzz_programs)
        add_dependencies(fuzz_programs engine_fuzz)
    endif()
else()
    # A library: in a program the linker puts an instruction that sets no flags in the place of one
    # by which g++ checks the addresses of thread-local variables for null (UBSan).
    set(engine_target fuzz_engine)
    add_library(fuzz_engine SHARED ${engine_sources})
    add_executable(engine_fuzz ${CMAKE_CURRENT_LIST_DIR}/../replay/replay.cpp)
    target_link_libraries(engine_fuzz PRIVATE httpd_compile fuzz_engine)
    add_test(NAME fuzz.engine COMMAND engine_fuzz
        ${CMAKE_CURRENT_LIST_DIR}/../corpus/engine ${CMAKE_CURRENT_LIST_DIR}/../regressions/engine)
    set_tests_properties(fuzz.engine PROPERTIES LABELS fuzz TIMEOUT 120)
endif()

foreach(library httpd_support httpd httpd_files httpd_echo httpd_basic_auth httpd_ws_echo
        httpd_ws_chat)
    target_sources(${engine_target} PRIVATE $<TARGET_OBJECTS:${library}>)
endforeach()
target_compile_definitions(${engine_target} PRIVATE
    HTTPD_FUZZ_ENGINE_FOLDER="${CMAKE_CURRENT_LIST_DIR}")
target_link_libraries(${engine_target} PRIVATE
    httpd_compile httpd_ace ${YAJL_LIBRARY} ZLIB::ZLIB ${CRYPT_LIBRARY})
target_link_options(${engine_target} PRIVATE -Wl,--wrap=poll)

# What Debian 12 offers: ACE and ACE_SSL are linked by name, because their pkg-config files add an
# include directory that does not exist there.
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(ZLIB REQUIRED)
find_package(Boost REQUIRED)

find_path(ACE_INCLUDE_DIR ace/ACE.h REQUIRED)
find_library(ACE_LIBRARY ACE REQUIRED)
find_library(ACE_SSL_LIBRARY ACE_SSL REQUIRED)
find_library(YAJL_LIBRARY yajl REQUIRED)
find_library(CRYPT_LIBRARY crypt REQUIRED)

add_library(httpd_ace INTERFACE)
target_include_directories(httpd_ace SYSTEM INTERFACE "${ACE_INCLUDE_DIR}")
target_link_libraries(httpd_ace INTERFACE
    "${ACE_SSL_LIBRARY}" "${ACE_LIBRARY}" OpenSSL::SSL OpenSSL::Crypto Threads::Threads)

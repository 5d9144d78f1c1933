#pragma once

/// Marks what libhttpd.so offers; every other symbol of the library stays hidden.
#define HTTPD_EXPORT __attribute__((visibility("default")))

#pragma once

/// Marks what libhttpd_support.so offers; every other symbol of the library stays hidden.
#define HTTPD_SUPPORT_EXPORT __attribute__((visibility("default")))

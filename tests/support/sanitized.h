#pragma once

/// Defined where a sanitizer is compiled in: it changes what the heap and the threads cost.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HTTPD_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HTTPD_TEST_SANITIZED 1
#endif
#endif

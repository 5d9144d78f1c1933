#pragma once

struct Ceiling_Options;

// One function per kind; each runs until the program is ended.
[[noreturn]] void serve_close(const Ceiling_Options& options);
[[noreturn]] void serve_file(const Ceiling_Options& options);
[[noreturn]] void serve_get(const Ceiling_Options& options);
[[noreturn]] void serve_pipelined(const Ceiling_Options& options);
[[noreturn]] void serve_threads(const Ceiling_Options& options);
[[noreturn]] void serve_tls(const Ceiling_Options& options);
[[noreturn]] void serve_tls_close(const Ceiling_Options& options);
[[noreturn]] void serve_upload(const Ceiling_Options& options);
[[noreturn]] void serve_websocket(const Ceiling_Options& options);

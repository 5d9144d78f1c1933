#pragma once

#include <cstddef>

/// How many bytes of a file are read and sent at once.
constexpr size_t FILE_BLOCK_SIZE = 256 * 1024;

/**
 * This thread's buffer of FILE_BLOCK_SIZE bytes, made at its first use and freed when the thread
 * ends. It begins on a page: copying from the page cache to another place can be several times
 * slower. @return null when there is no memory (ENOMEM).
 */
char* file_block();

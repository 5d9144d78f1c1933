#pragma once

#include <cstring>

/**
 * True when a path holds "./" or ".\": a step to the same or the parent folder, which a plug-in
 * that maps paths to files must never see. The path's percent-encoded dots have been decoded.
 */
inline bool has_dot_segment(const char* path)
{
    for (const char* dot = std::strchr(path, '.'); dot != nullptr;
         dot = std::strchr(dot + 1, '.')) {
        if (dot[1] == '/' || dot[1] == '\\') {
            return true;
        }
    }
    return false;
}

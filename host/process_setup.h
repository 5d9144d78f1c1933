#pragma once

/**
 * Opens the null device on each of the descriptors 0 to 2 that the parent left closed. Otherwise
 * the next socket would get that number, and what is printed on it would go to a client.
 */
void open_standard_descriptors();

/// Raises the soft limit of open descriptors to the hard limit: each connection needs one. A
/// failure is only noted in the log.
void raise_descriptor_limit();

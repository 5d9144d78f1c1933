#pragma once

/**
 * Opens the null device on each of the descriptors 0 to 2 that the parent left closed. Otherwise
 * the next socket would get that number, and what is printed on it would go to a client.
 */
void open_standard_descriptors();

/**
 * Opens the null device on descriptor 2 where it leads to the place that descriptor 1 leads to:
 * what is written to standard output is for a client, and classic inetd hands the connection over
 * as 0, 1 and 2. A terminal is left as it is: whoever sits there wants to see both.
 */
void keep_standard_error_from_the_client();

/// Raises the soft limit of open descriptors to the hard limit: each connection needs one. A
/// failure is only noted in the log.
void raise_descriptor_limit();

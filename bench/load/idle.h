#pragma once

struct Load_Options;

/**
 * Mode idle: opens the connections one after another, has a request answered on each (or the
 * upgrade to WebSocket), says "ready" and holds them until SIGTERM or SIGINT.
 *
 * @return the exit status: 1 when the server has closed some of them meanwhile
 */
int hold_idle_connections(const Load_Options& options);

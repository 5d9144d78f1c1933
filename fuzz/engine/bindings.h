#pragma once

/// Binds the plug-ins of a run to their URIs, once for the process: the bundled ones, those of the
/// tests, and the target's own.
void bind_plug_ins();

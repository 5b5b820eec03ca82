#pragma once

#include "kestro/core/export.h"

namespace kestro {

/// Initialises OpenSSL once for the process, without its exit-time clean-up. Kestro's threads
/// (the loading thread, the executor, the main queue) are never joined, so a transfer or a link
/// may still be using OpenSSL while the process exits; freeing OpenSSL's tables under them would
/// crash the exit. Call it before any other OpenSSL or libcurl use; later calls do nothing.
/// Any thread.
KESTRO_API void initTLSRuntime();

}  // namespace kestro

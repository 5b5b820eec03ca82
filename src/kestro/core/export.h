#pragma once

// Symbols of Kestro's public surface are exported explicitly; everything else is hidden
// (the libraries are built with -fvisibility=hidden).
#define KESTRO_API __attribute__((visibility("default")))

#pragma once

#include <filesystem>
#include <string>

#include "kestro/core/export.h"

namespace kestro {

/// The application's data directory, where Kestro keeps its database and settings:
/// $KESTRO_HOME if set, else $XDG_DATA_HOME/kestro/<application id>, else
/// ~/.local/share/kestro/<application id>. Created (with parents) if missing; when it cannot
/// be created the path is still returned and the caller's first file operation reports the
/// failure. Read afresh on every call, so tests can point KESTRO_HOME elsewhere.
///
/// Any thread.
KESTRO_API std::filesystem::path dataDirectory();

/// The application id used in the data directory's path. Defaults to the executable's file
/// name. A host that wants another name sets it before initialising Kestro.
KESTRO_API std::string applicationId();
KESTRO_API void setApplicationId(std::string id);

}  // namespace kestro

#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "devservice/api.h"

namespace kestro::devservice {

/// One file of the dashboard's page, built into the service (see page_files.cc, generated from
/// web/ at build time).
struct EmbeddedFile {
    std::string_view path;  // relative to web/, such as "app.js"
    std::string_view bytes;
    std::string_view tag;  // changes whenever the bytes do
};

extern const EmbeddedFile kEmbeddedFiles[];
extern const std::size_t kEmbeddedFileCount;

/// Answers GET or HEAD of "/" (the page) and "/app/<file>" (its modules and style sheet), or
/// gives nothing for any other path. These hold no data, so they need no token; every answer
/// carries the page's Content-Security-Policy. Safe to call from any thread.
std::optional<Reply> servePage(const Request& request);

}  // namespace kestro::devservice

#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "kestro/core/export.h"
#include "kestro/records/records.h"

namespace kestro {

/// The exchanges as an HTTP Archive (HAR 1.2) document, one entry per exchange in the order
/// given. Bodies appear as they were stored (already redacted and possibly cut; a cut body's
/// entry says so in a comment and gives the whole body's size). Timings come from the
/// exchange's measured phases when it has them, otherwise the whole span from request to
/// answer counts as waiting. Pure: any thread.
KESTRO_API std::string harDocument(std::span<const RequestTypeRequest> exchanges);

/// Writes harDocument(exchanges) to a new file "kestro-<yyyyMMdd-HHmmss>.har" (local time) in
/// `directory`, adding "-2", "-3"... to the name when a file of that name exists. Gives the
/// file's path, or nothing after a console line saying why (the directory is missing or not
/// writable, the disk is full); a file half written is removed. Any thread.
KESTRO_API std::optional<std::filesystem::path> writeHARFile(
    std::span<const RequestTypeRequest> exchanges, const std::filesystem::path& directory);

}  // namespace kestro

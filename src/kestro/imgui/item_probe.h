#pragma once

// Where the drawing layer placed items that carry no text of their own (icons, the rows of a
// custom-drawn text, a column), reported by name as each frame is drawn. Tests and tools aim at
// them through it; with no probe installed, reporting costs one pointer test.
//
// Threads: the thread that draws. One probe per process.

#include <imgui.h>

#include <string_view>

#include "kestro/core/export.h"

namespace kestro::imgui {

class KESTRO_API ItemProbe {
  public:
    virtual ~ItemProbe() = default;
    /// An item named name was drawn over [min, max] (screen coordinates) in this frame.
    virtual void item(std::string_view name, ImVec2 min, ImVec2 max) = 0;
};

/// Installs a probe (nullptr removes it). The probe must outlive its installation.
KESTRO_API void setItemProbe(ItemProbe* probe);
KESTRO_API ItemProbe* itemProbe();

/// Reports an item to the installed probe, if any.
inline void probeItem(std::string_view name, ImVec2 min, ImVec2 max) {
    if (ItemProbe* probe = itemProbe()) probe->item(name, min, max);
}

}  // namespace kestro::imgui

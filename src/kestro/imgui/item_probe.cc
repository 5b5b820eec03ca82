#include "kestro/imgui/item_probe.h"

namespace kestro::imgui {

namespace {
ItemProbe* gProbe = nullptr;
}

void setItemProbe(ItemProbe* probe) { gProbe = probe; }
ItemProbe* itemProbe() { return gProbe; }

}  // namespace kestro::imgui

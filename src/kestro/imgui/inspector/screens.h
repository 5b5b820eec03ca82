#pragma once

// One draw function per inspector screen, each reading its model and calling its operations,
// and the per-screen drawing state that is not the model's (previews, keyboard focus). UI
// thread, inside the sheet's window.

#include <imgui.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "kestro/imgui/inspector/image_preview.h"
#include "kestro/imgui/json_viewer_view.h"
#include "kestro/inspector/item_details.h"
#include "kestro/inspector/redaction_settings.h"
#include "kestro/inspector/request_row.h"
#include "kestro/inspector/requests_list.h"
#include "kestro/inspector/settings_form.h"
#include "kestro/inspector/toast_manager.h"

namespace kestro::imgui::inspector {

/// The control sheet's settings form, with its two confirmation dialogs.
void drawSettingsForm(KestroSettingsForm& form);
/// The redaction switch and lists, inside the settings form.
void drawRedactionSettings(RedactionSettings& settings);

struct ListState {
    std::string focusedId;  // the row the Delete key acts on
    std::string searchField;
    // The visible rows' contents, kept from one frame to the next while the rows stay the same
    // (the list's revision): formatting a row (its time through ICU, its tags) costs more than
    // drawing it. Never more entries than rows in view.
    std::uint64_t rowsRevision = ~std::uint64_t{0};
    std::unordered_map<const RequestEventType*, RequestRowContent> rows, nextRows;
};
/// The requests list: search bar and rows. Opening a row selects it in the model.
void drawRequestsList(RequestsListModel& list, ListState& state);

struct DetailsState {
    const ItemDetailsModel* shown = nullptr;  // the model the previews below belong to
    std::map<std::size_t, std::unique_ptr<JSONViewerView>> json;  // by element number
    std::map<std::size_t, std::unique_ptr<ImagePreview>> images;  // by element number
};
/// An item's details. Returns true when "Done" was pressed.
bool drawItemDetails(ItemDetailsModel& details, bool stillListed, DetailsState& state);

/// The host's way of opening links from JSON bodies (setInspectorOpenURL); may be empty.
std::function<void(const std::string&)>& openURLHook();

/// The current toast at the top of the area [min, max], on the foreground draw list.
void drawToast(const ToastManager& toasts, ImVec2 min, ImVec2 max);

}  // namespace kestro::imgui::inspector

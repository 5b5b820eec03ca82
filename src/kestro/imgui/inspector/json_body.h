#pragma once

// A JSON body in a detail screen: line numbers beside the lines, fold and expand controls on
// the lines that open a container, over the JSON viewer's model. Only the rows in view are
// drawn. The body is decorated off the UI thread; until it is shown the view says so.
//
// UI thread, inside a frame; the host drives the main queue, where the model's work arrives.

#include <imgui.h>

#include <memory>
#include <string>

#include "kestro/jsonview/json_viewer_model.h"

namespace kestro::imgui::inspector {

class JSONBodyView {
  public:
    explicit JSONBodyView(std::string json);

    /// Draws the body at most maxHeight tall (less for a short document).
    void draw(const char* id, float maxHeight);

    const std::shared_ptr<JSONViewer>& model() const { return model_; }
    /// Whether the document is laid out and shown.
    bool isShowing() const { return showing_; }

  private:
    std::shared_ptr<JSONViewer> model_;
    std::shared_ptr<int> state_;  // 0 decorating, 1 shown, 2 failed; written by the completion
    bool showing_ = false;
    std::string line_;  // scratch for one row's text
};

}  // namespace kestro::imgui::inspector

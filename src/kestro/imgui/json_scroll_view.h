#pragma once

// The JSON viewer's scrolled geometry: one row per entry of the model's line list, each as tall
// as the model says once it has been on screen and estimated before, the rows' tops as prefix
// sums, and the rows a viewport shows. Only visible rows are ever measured, so a document of a
// hundred thousand lines costs what its visible rows cost; the estimates make the scroll range
// right before the rows are seen (exact when lines do not wrap).
//
// Plain logic, no ImGui: the view feeds it heights and asks it for rows. The thread that draws.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestro/core/export.h"

namespace kestro {

class KESTRO_API JSONScrollView {
  public:
    /// Starts over with one row per estimate.
    void reset(std::vector<double> heights);
    std::size_t rowCount() const { return heights_.size(); }
    double height(std::size_t row) const { return heights_[row]; }
    /// Sets a row's height; returns by how much it changed.
    double setHeight(std::size_t row, double height);
    /// Distance from the top of the content to the top of row (row == rowCount(): the bottom).
    double top(std::size_t row) const;
    double contentHeight() const { return top(heights_.size()); }
    /// The row whose extent holds y (clamped to the rows); 0 when there are none.
    std::size_t rowAt(double y) const;

    /// Widest row drawn since the last reset (for the horizontal scroll range).
    double widestRow() const { return widest_; }
    void noteRowWidth(double width) {
        if (width > widest_) widest_ = width;
    }

  private:
    // Fenwick tree over the heights: prefix sums and point updates in O(log n).
    std::vector<double> heights_;
    std::vector<double> tree_;
    double widest_ = 0;
};

}  // namespace kestro

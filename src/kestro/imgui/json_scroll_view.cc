#include "kestro/imgui/json_scroll_view.h"

#include <algorithm>
#include <cmath>

namespace kestro {

void JSONScrollView::reset(std::vector<double> heights) {
    heights_ = std::move(heights);
    tree_.assign(heights_.size() + 1, 0);
    for (std::size_t i = 1; i <= heights_.size(); ++i) {
        tree_[i] += heights_[i - 1];
        const std::size_t parent = i + (i & (~i + 1));
        if (parent <= heights_.size()) tree_[parent] += tree_[i];
    }
    widest_ = 0;
}

double JSONScrollView::setHeight(std::size_t row, double height) {
    if (row >= heights_.size()) return 0;
    const double delta = height - heights_[row];
    if (delta == 0) return 0;
    heights_[row] = height;
    for (std::size_t i = row + 1; i < tree_.size(); i += i & (~i + 1)) tree_[i] += delta;
    return delta;
}

double JSONScrollView::top(std::size_t row) const {
    double sum = 0;
    for (std::size_t i = std::min(row, heights_.size()); i > 0; i -= i & (~i + 1)) sum += tree_[i];
    return sum;
}

std::size_t JSONScrollView::rowAt(double y) const {
    if (heights_.empty() || y < 0) return 0;
    // Descend the tree for the last position whose prefix sum is at most y.
    std::size_t pos = 0;
    double remaining = y;
    std::size_t step = 1;
    while (step * 2 <= heights_.size()) step *= 2;
    for (; step > 0; step /= 2) {
        const std::size_t next = pos + step;
        if (next <= heights_.size() && tree_[next] <= remaining) {
            pos = next;
            remaining -= tree_[next];
        }
    }
    return std::min(pos, heights_.size() - 1);
}

}  // namespace kestro

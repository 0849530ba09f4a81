#pragma once
// Disjoint sets and the two-pass labelling of connected regions of a raster built on them.
//
// A union keeps the smaller root, so a set's root is always its lowest member: in a raster
// scan that is the label opened first, which gives stable numbering in raster order.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace op {

class UnionFind {
 public:
  // Room for `capacity` elements, so that add() does not allocate in the frame loop.
  void reserve(int32_t capacity) { parent_.reserve(size_t(capacity)); }
  // Starts over with the singletons 0 .. count - 1.
  void reset(int32_t count) {
    parent_.resize(size_t(count));
    for (int32_t i = 0; i < count; ++i) parent_[size_t(i)] = i;
  }
  // A new singleton; returns its element.
  int32_t add() {
    const auto element = int32_t(parent_.size());
    parent_.push_back(element);
    return element;
  }
  int32_t size() const { return int32_t(parent_.size()); }

  int32_t find(int32_t i) {
    // Path halving: every visited element skips to its grandparent.
    while (parent_[size_t(i)] != i) {
      parent_[size_t(i)] = parent_[size_t(parent_[size_t(i)])];
      i = parent_[size_t(i)];
    }
    return i;
  }
  bool is_root(int32_t i) const { return parent_[size_t(i)] == i; }
  // Joins the sets of a and b; returns the root of both.
  int32_t unite(int32_t a, int32_t b) {
    a = find(a);
    b = find(b);
    if (a < b) {
      parent_[size_t(b)] = a;
      return a;
    }
    parent_[size_t(a)] = b;
    return b;
  }

  // number[i] for the elements from `first` on: 0, 1, ... per set in the order of the sets'
  // lowest members. Returns the number of sets. `number` must hold size() entries.
  int32_t number_sets(int32_t* number, int32_t first = 0) {
    int32_t sets = 0;
    for (int32_t i = first; i < size(); ++i) number[i] = is_root(i) ? sets++ : number[find(i)];
    return sets;
  }

 private:
  std::vector<int32_t> parent_;
};

// The pixels [x0, x1] x [y0, y1] of a row-major raster `stride` pixels wide.
struct RasterWindow {
  int32_t stride = 0;
  int32_t x0 = 0, y0 = 0, x1 = -1, y1 = -1;

  static RasterWindow whole(int32_t width, int32_t height) { return {width, 0, 0, width - 1, height - 1}; }
};

enum class Connectivity { Four, Eight };

// First pass of a two-pass labelling: every pixel i = y * stride + x of the window gets
// labels[i] = 0 where !member(i), else a provisional label, an element of `sets` (which the
// caller resets, usually to the one element 0 that stands for "no region"). A member joins
// the set of every earlier neighbour n inside the window (left and up; with Eight also
// up-left and up-right) that is labelled and for which joins(i, n); it opens a set of its
// own when it joins none. member(i) is asked once per pixel, in raster order. The second
// pass is the caller's: sets.find(label) is the region's root.
template <typename Member, typename Joins>
void label_components(UnionFind& sets, int32_t* labels, const RasterWindow& window, Member&& member,
                      Joins&& joins, Connectivity connectivity = Connectivity::Four) {
  const bool diagonal = connectivity == Connectivity::Eight;
  for (int32_t y = window.y0; y <= window.y1; ++y) {
    const int32_t row = y * window.stride;
    const bool hasUp = y > window.y0;
    for (int32_t x = window.x0; x <= window.x1; ++x) {
      const int32_t i = row + x;
      labels[i] = 0;
      if (!member(i)) continue;
      int32_t own = 0;
      auto meet = [&](int32_t n) {
        if (labels[n] == 0 || !joins(i, n)) return;
        own = own == 0 ? labels[n] : sets.unite(own, labels[n]);
      };
      if (x > window.x0) meet(i - 1);
      if (hasUp) {
        if (diagonal && x > window.x0) meet(i - window.stride - 1);
        meet(i - window.stride);
        if (diagonal && x < window.x1) meet(i - window.stride + 1);
      }
      labels[i] = own != 0 ? own : sets.add();
    }
  }
}

}  // namespace op

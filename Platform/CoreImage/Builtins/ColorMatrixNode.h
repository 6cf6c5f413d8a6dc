// The colour-matrix node: the one graph node behind CIColorMatrix, CIColorControls and
// CIExposureAdjust (and any opacity expressed as a matrix). It is public so that graph builders
// can recognise it: a colour matrix applied to a colour matrix is folded into one node when the
// two-step result is provably the same as the one-step result.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "CoreImage/CIImage.h"
#include "CoreImage/ImageNode.h"

// A 4×5 affine map on un-premultiplied RGBA: out[i] = Σj m[i][j]·in[j] + m[i][4].
struct ColorMatrix {
  std::array<std::array<double, 5>, 4> m{};

  static ColorMatrix identity();
  // From the four rows (each x, y, z, w = weights of r, g, b, a) and the bias (x, y, z, w).
  static ColorMatrix fromRows(const std::array<double, 4>& r, const std::array<double, 4>& g,
                              const std::array<double, 4>& b, const std::array<double, 4>& a,
                              const std::array<double, 4>& bias);
  bool isIdentity() const;
  // This matrix applied after `inner`: (this ∘ inner)(x) = this(inner(x)).
  ColorMatrix after(const ColorMatrix& inner) const;
  bool operator==(const ColorMatrix&) const = default;
};

class ColorMatrixNode final : public ImageNode {
 public:
  ColorMatrixNode(CIImage input, const ColorMatrix& matrix);

  // The input mapped through the matrix: the input itself for the identity, one folded node
  // when the input is itself a foldable colour-matrix node, a new node otherwise; nil for nil.
  static CIImage imageByApplyingMatrix(const CIImage& input, const ColorMatrix& matrix);
  // Whether `outer` applied to the output of a node with matrix `inner` equals one node with
  // outer ∘ inner, for every input with alpha in [0, 1].
  static bool canFold(const ColorMatrix& outer, const ColorMatrix& inner);

  const ColorMatrix& matrix() const { return matrix_; }
  // The matrix applied to n premultiplied pixels: what render does to each row inside the
  // extent. Consumers that fold the matrix into their own pass call this, for the same bits.
  void applyRow(const float* in, float* out, std::size_t n) const;
  // This matrix, then `outer`'s, in one pass over n premultiplied pixels (the pixels stay in
  // registers between the two): the bits of applyRow followed by outer.applyRow, for a consumer
  // that reads a matrix node over a matrix node that cannot fold into one matrix.
  void applyRowThen(const ColorMatrixNode& outer, const float* in, float* out, std::size_t n) const;

  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "colorMatrix"; }
  bool writesEveryPixel() const override { return centresCoverExtent(extent()); }

 private:
  ColorMatrix matrix_;
  // Precomputed single-precision forms for the pixel loop.
  std::array<float, 20> coefficients_{};
  // True when the map is linear in premultiplied space (alpha row (0 0 0 k) with 0 < k,
  // no alpha bias, colour rows ignoring alpha and no colour bias): the loop then needs no
  // division.
  bool premultipliedLinear_ = false;
};

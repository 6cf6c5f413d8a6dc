// QVFilterTextureTile: repeats a texture of the catalogue (canvas, linen, paper) across the
// whole input at the texture's own pixel size, from the texture's origin, and hands the tiled
// layer to the composite step of the family. The texture is held as a name / identifier pair
// (QVFilterTextureInput).
//
// The class loads the kernel of the resource "QVFilterTextureTile" on its first use, as every
// kernel-using filter does; the tiling itself is the built-in "CIAffineTile", and the kernel is
// never run.
#pragma once

#include "CoreImage/CIKernel.h"
#include "Filters/QVFilterComposite.h"
#include "Filters/QVFilterTextureInput.h"

class QVFilterTextureTile : public QVFilterTextureInput<QVFilterComposite> {
 public:
  QVFilterTextureTile();  // class initialisation: loads the tile kernel on first use

  // The composite's keys, then the texture's name and identifier.
  std::vector<std::string> customInputKeys() const override;
  CIImage outputImage() const override;
  // The view of a QVFilterTextureIKFilterUIViewController offering the "tile" textures; both arguments are ignored.
  std::shared_ptr<IKFilterUIView> provideViewForUIConfiguration(const Dictionary& configuration,
                                                                const std::vector<std::string>& excludedKeys) override;

  // The first kernel of "QVFilterTextureTile" (nil when the resource is missing).
  static const CIKernelRef& textureTileKernel();
};

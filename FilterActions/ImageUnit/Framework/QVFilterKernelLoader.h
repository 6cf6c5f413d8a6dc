// Loading a filter class's custom kernels from the plug-in bundle's "cikernel" resources.
//
// A kernel-using filter loads its kernels once per process, in its class initialisation (the
// first use of the class), and keeps them in a class-level static that is written once and
// never released (allocated and never destroyed, so no exit-time teardown touches it):
//
//   const CIKernelRef& QVFilterShineStraight::straightMaskKernel() {
//     static const CIKernelRef& kernel =
//         *new CIKernelRef(QVFilterKernelsFromResource("QVFilterShineStraightMask").kernelAtIndex(0));
//     return kernel;
//   }
//   QVFilterShineStraight::QVFilterShineStraight() { straightMaskKernel(); }  // class initialisation
//
// Two kernels of one file (the stereoscopic filter) come from one list:
//
//   static const QVFilterKernelList& kernels = *new QVFilterKernelList(QVFilterKernelsFromResource("..."));
//   kernels.kernelAtIndex(0), kernels.kernelAtIndex(1)
//
// A subclass's construction reaches the same static, so it never loads the file again. The
// static's initialisation is thread-safe (the language's function-local static guarantee).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CoreImage/CIKernel.h"

class NSBundle;

// The kernels of one resource file, in the order in which they stand in the text.
struct QVFilterKernelList {
  // False when the resource is missing, unreadable or does not compile: a nil list, whose
  // every kernel is nil.
  bool present = false;
  std::vector<CIKernelRef> kernels;

  // The kernel at `index`: nil for a nil list. For a present list an index beyond its end
  // raises NSRangeException (a text that defines no kernel is a programming error of the
  // bundle; nothing in the plug-in catches it).
  CIKernelRef kernelAtIndex(std::size_t index) const;
};

// The kernels of Resources/<name>.cikernel of the plug-in bundle, found by
// QVFilterImageUnitsBundleIdentifier (never the main bundle: the host is the main program).
// A missing bundle or resource, or a text that does not compile, gives a nil list, silently.
QVFilterKernelList QVFilterKernelsFromResource(const std::string& name);
// The same in a given bundle (nil bundle: a nil list).
QVFilterKernelList QVFilterKernelsFromResourceInBundle(const std::shared_ptr<NSBundle>& bundle,
                                                       const std::string& name);

// How many times kernel resources were loaded in this process (each call of the two
// functions above counts once).
std::size_t QVFilterKernelResourceLoadCount();

// The whole file as UTF-8 text, its encoding detected from a byte-order mark: UTF-8 (mark
// dropped), UTF-16 little- or big-endian (converted); without a mark, UTF-8, or Latin-1 when
// the bytes are not valid UTF-8. nullopt when the file cannot be read, is larger than
// kQVFilterKernelResourceMaximumSize, or its text does not decode (UTF-16 with an odd number
// of bytes or an unpaired surrogate, broken UTF-8 after a UTF-8 mark).
inline constexpr std::size_t kQVFilterKernelResourceMaximumSize = 4u << 20;
std::optional<std::string> QVFilterStringWithContentsOfFile(const std::string& path);

// Compiling kernel text into CIKernel objects, and applying a kernel to its arguments.
#include "CoreImage/CIKernel.h"

#include <cstdio>
#include <mutex>

#include "CoreImage/CIColor.h"
#include "CoreImage/CISampler.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/Kernel/AST.h"
#include "CoreImage/Kernel/IR.h"
#include "CoreImage/Kernel/KernelNode.h"

std::string KernelDiagnostic::description() const {
  return std::to_string(line) + ":" + std::to_string(column) + ": error: " + message;
}

namespace {

std::string parameterTypeName(const cikl::VarDecl& p) {
  switch (p.kind) {
    case cikl::ParamKind::Sampler: return "sampler";
    case cikl::ParamKind::TableSampler: return "__table sampler";
    case cikl::ParamKind::Sample: return "__sample";
    case cikl::ParamKind::Color: return "__color";
    case cikl::ParamKind::Value: break;
  }
  return cikl::typeName(p.type);
}

CIImage applyHook(const CIKernelRef& kernel, const Array& arguments, const Dictionary& options) {
  return kernel ? kernel->apply(arguments, options) : CIImage();
}

}  // namespace

void CIKernelInstallApplyHook() {
  static std::once_flag once;
  std::call_once(once, [] { CISetKernelApplyHook(applyHook); });
}

namespace {
// Installed when the library loads; CIKernelInstallApplyHook runs again on the first compile in
// case the filter layer's hook storage was set up after this initialiser.
const bool kHookInstalled = [] {
  CISetKernelApplyHook(applyHook);
  return true;
}();
}  // namespace

std::vector<CIKernelRef> CIKernel::kernelsWithString(const std::string& text) { return kernelsWithString(text, nullptr); }

std::vector<CIKernelRef> CIKernel::kernelsWithString(const std::string& text, std::vector<KernelDiagnostic>* diagnostics) {
  CIKernelInstallApplyHook();
  (void)kHookInstalled;
  std::vector<CIKernelRef> kernels;
  try {
    auto unit = cikl::parse(text);
    cikl::check(*unit);
    for (auto& fn : unit->functions) {
      if (!fn->isKernel) continue;
      std::vector<CIKernelParameter> params;
      for (auto& p : fn->params) params.push_back({p->name, parameterTypeName(*p)});
      kernels.push_back(std::make_shared<CIKernel>(fn->name, std::move(params), cikl::lower(*unit, *fn)));
    }
  } catch (const cikl::CompileError& e) {
    if (diagnostics) diagnostics->push_back({e.loc.line, e.loc.column, e.message});
    return {};
  }
  return kernels;
}

CIKernelRef CIKernel::kernelWithString(const std::string& text, std::vector<KernelDiagnostic>* diagnostics) {
  std::vector<KernelDiagnostic> local;
  auto kernels = kernelsWithString(text, &local);
  if (kernels.size() == 1) return kernels[0];
  if (local.empty())
    local.push_back({1, 1, "expected exactly one kernel routine, found " + std::to_string(kernels.size())});
  if (diagnostics) diagnostics->insert(diagnostics->end(), local.begin(), local.end());
  return nullptr;
}

std::string CIKernel::signature() const {
  std::string s = "kernel vec4 " + name_ + "(";
  for (std::size_t i = 0; i < parameters_.size(); ++i) {
    if (i) s += ", ";
    s += parameters_[i].type + " " + parameters_[i].name;
  }
  return s + ")";
}

CIImage CIKernel::apply(const Array& arguments, const Dictionary& options) const {
  const cikl::Program& program = *program_;
  auto complain = [&](const std::string& what) {
    std::fprintf(stderr, "CIKernel %s: %s\n", name_.c_str(), what.c_str());
    return CIImage();
  };
  if (arguments.size() != program.params.size())
    return complain("expects " + std::to_string(program.params.size()) + " arguments, got " +
                    std::to_string(arguments.size()));
  std::vector<CIImage> images(std::size_t(program.inputCount));
  std::vector<KernelNode::InputMode> modes(std::size_t(program.inputCount));
  std::vector<float> floats(std::size_t(program.floatCount), 0.0f);
  std::vector<KernelNode::ColorSlot> colors;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const cikl::KernelParam& p = program.params[i];
    const Value& arg = arguments[i];
    const std::string where = "argument " + std::to_string(i + 1) + " ('" + p.name + "')";
    switch (p.kind) {
      case cikl::ParamKind::Sampler:
      case cikl::ParamKind::TableSampler: {
        if (arg.isNil()) return {};
        if (auto s = CISampler::fromValue(arg)) {
          if (!s->image()) return {};
          images[std::size_t(p.input)] = s->image();
          modes[std::size_t(p.input)] = {s->clampsToEdge(), s->filtersNearest(), false};
        } else if (CIImage image = CIImage::fromValue(arg)) {
          images[std::size_t(p.input)] = image;
        } else {
          return complain(where + " must be a CISampler, not " + arg.className());
        }
        break;
      }
      case cikl::ParamKind::Sample: {
        if (arg.isNil()) return {};
        CIImage image = CIImage::fromValue(arg);
        if (!image) {
          if (auto s = CISampler::fromValue(arg)) image = s->image();
          else return complain(where + " must be a CIImage, not " + arg.className());
          if (!image) return {};
        }
        images[std::size_t(p.input)] = image;
        modes[std::size_t(p.input)] = {false, true, true};
        break;
      }
      case cikl::ParamKind::Color: {
        auto c = CIColor::fromValue(arg);
        if (!c) return complain(where + " must be a CIColor, not " + (arg.isNil() ? std::string("nil") : arg.className()));
        colors.push_back({p.firstFloat, c});
        break;
      }
      case cikl::ParamKind::Value: {
        int n = cikl::componentCount(p.type);
        if (p.type == cikl::Type::Float) {
          if (!arg.isNumber()) return complain(where + " must be a number, not " + (arg.isNil() ? std::string("nil") : arg.className()));
          floats[std::size_t(p.firstFloat)] = static_cast<float>(arg.doubleValue());
          break;
        }
        auto v = CIVector::fromValue(arg);
        if (!v || int(v->count()) != n)
          return complain(where + " must be a CIVector of " + std::to_string(n) + " values");
        for (int k = 0; k < n; ++k) floats[std::size_t(p.firstFloat + k)] = static_cast<float>(v->valueAtIndex(std::size_t(k)));
        break;
      }
    }
  }
  CGRect extent = CGRectInfinite;
  if (auto it = options.find(kCIApplyOptionDefinition); it != options.end()) {
    if (!CIFilterShape::rectFromValue(it->second, &extent)) return complain("kCIApplyOptionDefinition is not a shape");
  } else if (auto ext = options.find(kCIApplyOptionExtent); ext != options.end()) {
    if (!CIFilterShape::rectFromValue(ext->second, &extent)) return complain("kCIApplyOptionExtent is not a rectangle");
  }
  // A kernel that returns its one input's texel under each pixel is no work at all: the
  // result is the input itself (black wrap) or its clamped extension (clamp wrap), cropped to
  // the definition. Only for pixel-aligned inputs, where both read exactly the same texels.
  if (program.passThroughInput >= 0 && images.size() == 1) {
    const CIImage& image = images[0];
    const CGRect e = image.extent();
    if (CGRectIsInfinite(e) || CGRectEqualToRect(e, CGRectIntegral(e))) {
      if (modes[0].clamp && !modes[0].exact) {
        CIImage clamped = image.imageByClampingToExtent();
        return CGRectIsInfinite(extent) ? clamped : clamped.imageByCroppingToRect(extent);
      }
      if (!CGRectIsInfinite(extent)) return image.imageByCroppingToRect(extent);
    }
  }
  return CIImage(std::make_shared<KernelNode>(extent, std::move(images), std::move(modes), program_, std::move(floats),
                                              std::move(colors), name_));
}

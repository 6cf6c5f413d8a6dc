// CIKernel: a per-pixel routine compiled at run time from kernel text. kernelsWithString
// compiles a text and returns its kernel routines in source order (helper functions are not
// returned); text that does not compile yields an empty list and, when asked, diagnostics with
// line and column. A kernel runs through CIFilter::apply (or CIKernel::apply), which builds a
// lazily evaluated image node.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"

namespace cikl {
struct Program;
}

struct KernelDiagnostic {
  int line = 0;
  int column = 0;
  std::string message;
  // "LINE:COLUMN: error: MESSAGE"
  std::string description() const;
};

struct CIKernelParameter {
  std::string name;
  // "sampler", "__table sampler", "__sample", "__color", "float", "vec2", "vec3" or "vec4"
  std::string type;
};

class CIKernel final : public Object {
 public:
  static std::vector<CIKernelRef> kernelsWithString(const std::string& text);
  static std::vector<CIKernelRef> kernelsWithString(const std::string& text, std::vector<KernelDiagnostic>* diagnostics);
  // The one kernel routine of `text`; nil (with a diagnostic) when it has none or several.
  static CIKernelRef kernelWithString(const std::string& text, std::vector<KernelDiagnostic>* diagnostics = nullptr);

  CIKernel(std::string name, std::vector<CIKernelParameter> parameters, std::shared_ptr<const cikl::Program> program)
      : name_(std::move(name)), parameters_(std::move(parameters)), program_(std::move(program)) {}

  const std::string& name() const { return name_; }
  const std::vector<CIKernelParameter>& parameters() const { return parameters_; }
  // "kernel vec4 NAME(TYPE NAME, ...)"
  std::string signature() const;
  const std::shared_ptr<const cikl::Program>& program() const { return program_; }

  // Runs the kernel over `arguments` (bound to the parameters in order: CISampler for sampler
  // parameters, CIImage for __sample, numbers for float, CIVector of N values for vecN, CIColor
  // for __color). kCIApplyOptionDefinition (a CIFilterShape, a CIVector or an array x y w h)
  // or kCIApplyOptionExtent gives the result's extent; without them it is infinite. Nil for a
  // nil image argument; nil and a message on stderr for an argument of the wrong kind.
  CIImage apply(const Array& arguments, const Dictionary& options) const;

  std::string className() const override { return "CIKernel"; }
  std::string description() const override { return "<CIKernel " + name_ + ">"; }

 private:
  std::string name_;
  std::vector<CIKernelParameter> parameters_;
  std::shared_ptr<const cikl::Program> program_;
};

// Installs the kernel apply hook of CIFilter::apply (done automatically on first compile).
void CIKernelInstallApplyHook();

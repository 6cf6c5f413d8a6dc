// The kernel IR: a flat list of instructions over float registers. A register holds one float
// per lane (pixel); vectors are groups of registers, ints and bools are floats (0 / 1). The
// prologue holds the work that is the same for every pixel and runs once per rendered region;
// the body runs once per batch of pixels. Control flow is structured: conditionals are turned
// into selects, loops run while any lane's loop mask is set, bounded by an iteration cap.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CoreImage/Kernel/AST.h"

namespace cikl {

enum class Op : std::uint8_t {
  // Sources.
  Const,         // dst = imm
  Param,         // dst = parameter float [aux]
  SamplerInfo,   // dst = component b (x, y, width, height) of input aux's extent
  DestX,         // dst = x of the current pixel's centre
  DestY,         // dst = y of the current pixel's centre
  Sample,        // dst..dst+3 = input aux sampled at (a, b)
  SampleAtDest,  // dst..dst+3 = input aux's texel under the current pixel
  // Arithmetic, component-wise on lanes.
  Mov, Add, Sub, Mul, Div, Neg, Min, Max, Abs, Sign, Floor, Ceil, Fract, Trunc, Mod, Sqrt, InvSqrt,
  Sin, Cos, Tan, Asin, Acos, Atan, Atan2, Pow, Exp, Log, Exp2, Log2,
  Step,    // b < a ? 0 : 1  (a = edge, b = x)
  Mix,     // a * (1 - c) + b * c
  Lt, Le, Eq, Ne, And, Or, Not,
  Select,  // a != 0 ? b : c
  // Control.
  LoopHead,      // resets the iteration counter of loop slot aux
  BranchIfNone,  // if no lane of mask a is set, continue at instruction aux
  LoopBack,      // counts an iteration of the loop whose head is at aux; jumps back unless capped
};

struct Instr {
  Op op;
  std::int32_t dst = -1, a = -1, b = -1, c = -1;
  float imm = 0;
  std::int32_t aux = 0;
};

// How one kernel parameter is fed from its argument.
struct KernelParam {
  std::string name;
  ParamKind kind = ParamKind::Value;
  Type type = Type::Float;
  int input = -1;         // samplers and __sample: index among the node's input images
  int firstFloat = -1;    // values and __color: first parameter float
};

struct Program {
  std::vector<Instr> prologue;
  std::vector<Instr> body;
  int registerCount = 0;
  int result[4] = {-1, -1, -1, -1};
  int loopSlots = 0;
  int inputCount = 0;
  int floatCount = 0;
  std::vector<KernelParam> params;
  // When the whole kernel returns one input's texel under each pixel unchanged, its index.
  int passThroughInput = -1;
};

// Lowers kernel routine `kernel` of a checked unit; throws CompileError when the result would
// be too large.
std::shared_ptr<const Program> lower(const TranslationUnit& unit, const FunctionDecl& kernel);

// A readable listing of a program, for tests and debugging.
std::string dump(const Program& program);

}  // namespace cikl

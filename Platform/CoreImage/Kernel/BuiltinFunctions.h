// The built-in functions of the kernel language, shared by the type checker and the lowering.
#pragma once

#include <string>

namespace cikl {

enum class Builtin {
  // Sampler and position functions.
  Sample, SamplerCoord, SamplerExtent, SamplerOrigin, SamplerSize, SamplerTransform, DestCoord,
  // Colour and selection helpers of the kernel language.
  Premultiply, Unpremultiply, Compare, SinFast, CosFast, TanFast, Sincos, SincosFast, Cossin, CossinFast,
  // Angle and trigonometry.
  Radians, Degrees, Sin, Cos, Tan, Asin, Acos, Atan,
  // Exponential.
  Pow, Exp, Log, Exp2, Log2, Sqrt, Inversesqrt,
  // Common.
  Abs, Sign, Floor, Ceil, Fract, Mod, Min, Max, Clamp, Mix, Step, Smoothstep,
  // Geometric.
  Length, Distance, Dot, Cross, Normalize, Faceforward, Reflect,
  // Vector relational.
  LessThan, LessThanEqual, GreaterThan, GreaterThanEqual, Equal, NotEqual, Any, All, Not,
  Count
};

// The built-in called `name`, or -1.
int builtinByName(const std::string& name);
const char* builtinName(Builtin b);

}  // namespace cikl

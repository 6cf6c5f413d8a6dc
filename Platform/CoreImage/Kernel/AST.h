// The syntax tree of kernel text: functions, statements and expressions as the parser builds
// them, with the slots that the type checker fills in (types, resolved variables and callees).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cikl {

struct SourceLoc {
  int line = 1;
  int column = 1;
};

// The one way a compile stage reports a problem: thrown, caught at the compiler's entry point.
struct CompileError {
  SourceLoc loc;
  std::string message;
};

// Value types of the language. Vectors are counted in components; samplers are opaque.
enum class Type : std::uint8_t { Error, Void, Float, Vec2, Vec3, Vec4, Int, Bool, BVec2, BVec3, BVec4, Sampler };

int componentCount(Type t);
// Float, Int or Bool for value types; the type itself otherwise.
Type scalarOf(Type t);
// The vector of n components of a scalar kind (Float -> vecN, Bool -> bvecN); Error if none.
Type vectorOf(Type scalar, int n);
const char* typeName(Type t);
inline bool isNumeric(Type t) { return scalarOf(t) == Type::Float || scalarOf(t) == Type::Int; }

// How a parameter is bound: an ordinary value, or one of the kernel-only kinds.
enum class ParamKind : std::uint8_t { Value, Sampler, TableSampler, Sample, Color };

struct VarDecl {
  std::string name;
  Type type = Type::Error;
  ParamKind kind = ParamKind::Value;
  bool isConst = false;
  SourceLoc loc;
};

struct FunctionDecl;

enum class ExprKind { IntLit, FloatLit, BoolLit, Ident, Unary, Binary, Assign, Ternary, Call, Field, Comma, PreIncDec, PostIncDec };

struct Expr {
  ExprKind kind;
  SourceLoc loc;
  std::string name;  // identifier, callee, field selector or operator
  double number = 0;
  std::vector<std::unique_ptr<Expr>> args;
  int depth = 1;

  // Filled in by the type checker.
  Type type = Type::Error;
  const VarDecl* var = nullptr;           // Ident
  const FunctionDecl* callee = nullptr;   // Call of a helper
  int builtin = -1;                       // Call of a built-in function
  Type constructs = Type::Error;          // Call of a constructor
  int swizzle[4] = {0, 0, 0, 0};          // Field
  int swizzleLength = 0;
  bool toFloat = false;                   // an int value used where a float is wanted

  Expr(ExprKind k, SourceLoc l) : kind(k), loc(l) {}
};

enum class StmtKind { Block, Decl, Expr, If, For, While, DoWhile, Return, Empty };

struct Stmt {
  StmtKind kind;
  SourceLoc loc;
  std::vector<std::unique_ptr<Stmt>> body;             // Block
  std::vector<std::unique_ptr<VarDecl>> vars;          // Decl
  std::vector<std::unique_ptr<Expr>> inits;            // Decl (null: no initialiser)
  std::unique_ptr<Expr> expr;                          // Expr, Return value, loop / if condition
  std::unique_ptr<Stmt> init;                          // For
  std::unique_ptr<Expr> step;                          // For
  std::unique_ptr<Stmt> then, otherwise;               // If; loop body in `then`

  Stmt(StmtKind k, SourceLoc l) : kind(k), loc(l) {}
};

struct FunctionDecl {
  std::string name;
  Type returnType = Type::Void;
  bool isKernel = false;
  SourceLoc loc;
  std::vector<std::unique_ptr<VarDecl>> params;
  std::unique_ptr<Stmt> body;
};

struct TranslationUnit {
  std::vector<std::unique_ptr<FunctionDecl>> functions;
};

// Limits that keep hostile text from exhausting the stack, the heap or the clock.
inline constexpr std::size_t kMaxSourceBytes = 1 << 20;
inline constexpr int kMaxNesting = 256;
inline constexpr int kMaxExpressionDepth = 1024;
inline constexpr int kMaxLoopIterations = 4096;

// Lexes and parses `text`; throws CompileError.
std::unique_ptr<TranslationUnit> parse(const std::string& text);
// Resolves names, checks types and fills in the checker's slots; throws CompileError.
void check(TranslationUnit& unit);

}  // namespace cikl
